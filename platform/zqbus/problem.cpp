#include "problem.h"

#include "platform/text/utf8.h"

namespace zq {
namespace {

constexpr std::size_t kLongest = 511;

/// Trivially destructible: the bus may be used while the objects of a thread are destroyed.
struct Note {
  ZQBusProblem::Kind kind = ZQBusProblem::Kind::None;
  char text[kLongest + 1] = {};
};
thread_local constinit Note last;

}  // namespace

void noteProblem(ZQBusProblem::Kind kind, std::string_view words) {
  last.kind = kind;
  last.text[cutText(words, kLongest).copy(last.text, kLongest)] = '\0';
}

ZQBusProblem lastZQBusProblem() {
  return {last.kind, last.text};
}

}  // namespace zq
