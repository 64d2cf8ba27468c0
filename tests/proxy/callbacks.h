// Callbacks, and the payload of an event for them.
#pragma once

#include <gtest/gtest.h>

#include <functional>

#include "perix/perix_proxy.h"
#include "tests/support/watched.h"

namespace zq {

template <typename Record>
int ignore(uint16_t, Record*, void*) {
  return 0;
}

/// A notifier that runs a function.
class ProgressFunction : public PerixDiagnoseNotify {
 public:
  explicit ProgressFunction(std::function<void()> run) : run_(std::move(run)) {}
  void OnDiagnoseProgress(const std::string&, uint64_t, uint32_t, const std::string&) override {
    run_();
  }

 private:
  const std::function<void()> run_;
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
