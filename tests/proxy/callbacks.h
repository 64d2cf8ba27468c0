// Callbacks, and the payload of an event for them.
#pragma once

#include <gtest/gtest.h>

#include "perix/perix_proxy.h"
#include "tests/support/watched.h"

namespace zq {

template <typename Record>
int ignore(uint16_t, Record*, void*) {
  return 0;
}

struct IgnoreProgress : PerixDiagnoseNotify {
  void OnDiagnoseProgress(const std::string&, uint64_t, uint32_t, const std::string&) override {}
};

/// Counts the deaths that a desktop is told of, in a Watched<int>.
inline int countDeath(uint16_t code, void* data, void* userdata) {
  EXPECT_EQ(code, SERVICE_DIED);
  EXPECT_EQ(data, nullptr);
  static_cast<Watched<int>*>(userdata)->increment();
  return 0;
}

inline std::string devicePayload() {
  return std::string(sizeof(CommonDevice), '\0');
}

}  // namespace zq
