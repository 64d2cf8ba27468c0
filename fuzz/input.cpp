#include "fuzz/input.h"

namespace zq::fuzz {
namespace {

constexpr std::size_t kLongestText = 300;
constexpr std::size_t kLongestRecord = 1200;
constexpr int kMostArguments = 12;

}  // namespace

ZQBusBytes anyBytes(FuzzedDataProvider& input, std::size_t most) {
  const auto content =
      input.ConsumeBytes<uint8_t>(input.ConsumeIntegralInRange<std::size_t>(0, most));
  return ZQBusBytes::copyOf(content.data(), static_cast<uint32_t>(content.size()));
}

ZQBusArgument anyArgument(FuzzedDataProvider& input, bool evenUncarried) {
  switch (input.ConsumeIntegralInRange(0, evenUncarried ? 5 : 4)) {
    case 0:
      return input.ConsumeIntegral<uint16_t>();
    case 1:
      return input.ConsumeIntegral<int32_t>();
    case 2:
      return input.ConsumeIntegral<int64_t>();
    case 3:
      return input.ConsumeRandomLengthString(kLongestText);
    case 4:
      return anyBytes(input, kLongestRecord);
    default:
      return std::monostate{};
  }
}

ZQBusMessage anyListReply(FuzzedDataProvider& input) {
  if (input.ConsumeIntegralInRange(0, 15) == 0) {
    return ZQBusMessage::failed(ZQBusFailure::Service, input.ConsumeRandomLengthString(40));
  }
  ZQBusMessage reply;
  if (input.ConsumeBool()) {
    reply.append(anyArgument(input, false));
  } else {
    reply.appendInt32(input.ConsumeIntegralInRange(-2, kMostArguments + 2));
  }
  const int count = input.ConsumeIntegralInRange(0, kMostArguments);
  for (int i = 0; i < count; ++i) {
    const bool block = input.ConsumeIntegralInRange(0, 7) != 0;
    reply.append(block ? ZQBusArgument(anyBytes(input, kLongestRecord))
                       : anyArgument(input, false));
  }
  return reply;
}

}  // namespace zq::fuzz
