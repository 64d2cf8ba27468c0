#include "service/bus/call_log.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <utility>

#include "platform/text/hex.h"

namespace zq::devservice {
namespace {

constexpr std::size_t kShownBytes = 64;
constexpr std::size_t kShownText = 256;

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

// "10:11:12.345", by the user's clock.
std::string timeOfDay() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  std::tm parts{};
  localtime_r(&now.tv_sec, &parts);
  std::array<char, 32> text{};
  const std::size_t length = std::strftime(text.data(), text.size(), "%H:%M:%S", &parts);
  std::snprintf(text.data() + length, text.size() - length, ".%03d",
                static_cast<int>(now.tv_nsec / 1'000'000));
  return text.data();
}

}  // namespace

Json argumentsAsJson(const ZQBusMessage& message, Disclosure disclosure, std::size_t most) {
  auto arguments = Json::array();
  const std::size_t count = message.argCount();
  for (std::size_t i = 0; i < std::min(count, most); ++i) {
    arguments.push_back(std::visit(ArgumentAsJson{disclosure}, message.arguments()[i]));
  }
  if (count > most) arguments.push_back({{"more", count - most}});
  return arguments;
}

uint64_t CallLog::note(const ZQBusMessage& message, const std::string& sender,
                       Disclosure disclosure) {
  if (calls_.size() == kLength) {
    calls_.pop_front();
    ++first_;
  }
  calls_.push_back({{"time", timeOfDay()},
                    {"method", message.name()},
                    {"sender", sender},
                    {"arguments", argumentsAsJson(message, disclosure)}});
  return first_ + calls_.size() - 1;
}

void CallLog::noteAnswer(uint64_t number, const char* member, Json answer) {
  if (number >= first_ && number - first_ < calls_.size()) {
    calls_[number - first_][member] = std::move(answer);
  }
}

const Json* CallLog::find(uint64_t number) const {
  return number >= first_ && number - first_ < calls_.size() ? &calls_[number - first_] : nullptr;
}

Json CallLog::answered(const std::string& method) const {
  auto answered = Json::array();
  for (const Json& call : calls_) {
    if (call["method"] == method && (call.contains("answer") || call.contains("error"))) {
      answered.push_back(call);
    }
  }
  return answered;
}

void CallLog::clear() {
  first_ += calls_.size();
  calls_.clear();
}

}  // namespace zq::devservice
