#include "service/bus/call_log.h"

#include <algorithm>

#include "platform/text/hex.h"

namespace zq::devservice {
namespace {

constexpr std::size_t kShownBytes = 64;
constexpr std::size_t kShownText = 256;
constexpr std::size_t kShownArguments = 32;

struct ArgumentAsJson {
  Disclosure disclosure;

  Json operator()(std::monostate) const { return nullptr; }
  Json operator()(const std::string& text) const {
    if (disclosure == Disclosure::SizesOnly) return {{"size", text.size()}};
    if (text.size() <= kShownText) return text;
    return {{"size", text.size()}, {"text", text.substr(0, kShownText)}};
  }
  Json operator()(const ZQBusBytes& bytes) const {
    if (disclosure == Disclosure::SizesOnly) return {{"size", bytes.size}};
    return {{"size", bytes.size}, {"hex", inHex(bytes.view().substr(0, kShownBytes))}};
  }
  template <typename Number>
  Json operator()(Number number) const {
    if (disclosure == Disclosure::SizesOnly) return {{"size", sizeof number}};
    return number;
  }
};

}  // namespace

Json argumentsAsJson(const ZQBusMessage& message, Disclosure disclosure) {
  auto arguments = Json::array();
  const std::size_t count = message.argCount();
  for (std::size_t i = 0; i < std::min(count, kShownArguments); ++i) {
    arguments.push_back(std::visit(ArgumentAsJson{disclosure}, message.arguments()[i]));
  }
  if (count > kShownArguments) arguments.push_back({{"more", count - kShownArguments}});
  return arguments;
}

const Json& CallLog::note(const ZQBusMessage& message, const std::string& sender,
                          Disclosure disclosure) {
  if (calls_.size() == kLength) calls_.pop_front();
  calls_.push_back({{"method", message.name()},
                    {"sender", sender},
                    {"arguments", argumentsAsJson(message, disclosure)}});
  return calls_.back();
}

}  // namespace zq::devservice
