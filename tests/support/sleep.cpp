// The library's waits, a hundred times as fast.
#include <thread>

#include "platform/util/util.h"
#include "tests/support/sleeps.h"

namespace zq {

Watched<int>& sleeps() {
  static auto* const count = new Watched<int>;
  return *count;
}

void Sleep(unsigned int milliseconds) {
  sleeps().change([](int& count) { ++count; });
  std::this_thread::sleep_for(std::chrono::microseconds(10 * milliseconds));
}

}  // namespace zq
