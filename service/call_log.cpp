#include "service/call_log.h"

namespace zq::devservice {
namespace {

constexpr std::size_t kShownBytes = 64;

struct ArgumentAsJson {
  Disclosure disclosure;

  Json operator()(std::monostate) const { return nullptr; }
  Json operator()(const std::string& text) const {
    if (disclosure == Disclosure::SizesOnly) return {{"size", text.size()}};
    return text;
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
  for (const ZQBusArgument& argument : message.arguments()) {
    arguments.push_back(std::visit(ArgumentAsJson{disclosure}, argument));
  }
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
