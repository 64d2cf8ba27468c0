// A caller that knows the answer that it must get, and that no other caller may get.
#pragma once

#include <cstdint>
#include <string>

namespace zq::chaos {

/// Has the service keep a text of its own, and asks for it.
class Witness {
 public:
  /// `number` is that of its thread. `usesTurbo` says under which of two kinds of settings the
  /// service keeps the text.
  Witness(int number, bool usesTurbo)
      : number_(static_cast<uint16_t>(number)), usesTurbo_(usesTurbo) {}

  /// Sets a new text and asks for it. Says what went wrong; empty when nothing. With `mayFail`, a
  /// call that fails is no fault; a text of another caller always is.
  std::string testify(bool mayFail);

 private:
  const uint16_t number_;
  const bool usesTurbo_;
  int round_ = 0;
};

}  // namespace zq::chaos
