#include "forked_child.h"

#include <atomic>

#include "platform/util/fork_generation.h"

namespace zq {
namespace {

constexpr int kUnused = -1;
std::atomic<int> user = kUnused;  // the process that used the library first, by its fork generation

}  // namespace

void noteUse() {
  int unused = kUnused;
  user.compare_exchange_strong(unused, forkGeneration());
}

bool inForkedChild() {
  return user != forkGeneration();
}

}  // namespace zq
