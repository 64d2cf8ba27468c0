// Messages on the wire out of a fuzzer's bytes: rarely right in everything.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <string>
#include <vector>

#include "tests/support/wire_bytes.h"

namespace zq::fuzz {

/// A message as it goes out.
struct Sending {
  std::string bytes;
  std::vector<int> descriptors;  ///< open for the life of the process
  /// Whether a reader finds the end of the message where it is. Else nothing behind it is read as
  /// it was meant.
  bool inStep = true;
};

/// Gives `message` a body of any types with any values, and other header fields, byte order and
/// type as the input likes, damages its bytes, announces descriptors, and with `withDescriptors`
/// sends some along.
Sending anySending(FuzzedDataProvider& input, wire::Message message, bool withDescriptors);

}  // namespace zq::fuzz
