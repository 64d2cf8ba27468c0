// How often the library slept, in programs that have their own Sleep.
#pragma once

#include "tests/support/watched.h"

namespace zq {

Watched<int>& sleeps();

}  // namespace zq
