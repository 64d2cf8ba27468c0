#include "forked_child.h"

#include <atomic>

#include "platform/util/fork_generation.h"

namespace zq {
namespace {

constexpr int kUnused = -1;
// The fork generation of the process that used the library first.
std::atomic<int> user = kUnused;

}  // namespace

void noteUse() {
  int unused = kUnused;
  user.compare_exchange_strong(unused, forkGeneration());
}

bool inForkedChild() {
  return user != forkGeneration();
}

}  // namespace zq
