// Where the manager notes why a thread found no bus or no service: lastZQBusProblem() tells it.
#pragma once

#include <string_view>

#include "zqbus/zqbus.h"

namespace zq {

/// Longer words are cut. Allocates nothing.
void noteProblem(ZQBusProblem::Kind kind, std::string_view words);
inline void noteNoProblem() {
  noteProblem(ZQBusProblem::Kind::None, "");
}

}  // namespace zq
