// Callbacks that do nothing.
#pragma once

#include <cstdint>

#include "perix/perix_proxy.h"

namespace zq {

template <typename Record>
int ignore(uint16_t, Record*, void*) {
  return 0;
}

struct IgnoreProgress : PerixDiagnoseNotify {
  void OnDiagnoseProgress(const std::string&, uint64_t, uint32_t, const std::string&) override {}
};

}  // namespace zq
