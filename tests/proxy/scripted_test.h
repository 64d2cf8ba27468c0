// Parts that the tests over the scripted bus share.
#pragma once

#include <set>

#include "tests/proxy/callbacks.h"
#include "tests/proxy/scripted_bus.h"
#include "tests/support/blocked_thread.h"
#include "tests/support/messages.h"

namespace zq {

using P = PerixProxy&;

class InstanceTest : public testing::Test {
 protected:
  PerixProxy& proxy = *PerixProxy::getInstance();
};

/// The functions that wrote into the log since the last time.
inline std::set<std::string> writers() {
  std::set<std::string> names;
  for (const LogLine& line : takeLog()) names.insert(line.function);
  return names;
}

/// Recoveries that did not find the service, and sleep until this object ends; then the service is
/// there.
class SleepingRecoveries {
 public:
  SleepingRecoveries() { begin(); }
  ~SleepingRecoveries() {
    script().isRegistered = [] { return true; };
    point_.go();
    threads_.clear();
    script().sleep = [] {};
  }
  void begin() {
    script().isRegistered = [] { return false; };
    script().sleep = [this] { point_.stop(); };
    threads_.emplace_back(service()->death());
    point_.awaitStop(static_cast<int>(threads_.size()));
  }

 private:
  BlockingPoint point_;
  std::vector<std::jthread> threads_;
};

}  // namespace zq
