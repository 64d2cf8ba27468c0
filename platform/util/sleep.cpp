#include <chrono>
#include <thread>

#include "platform/util/util.h"

namespace zq {

void Sleep(unsigned int milliseconds) {
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

}  // namespace zq
