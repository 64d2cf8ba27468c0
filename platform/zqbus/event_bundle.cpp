#include "event_bundle.h"

#include <algorithm>
#include <utility>

#include "memory_of.h"

namespace zq {
namespace {

// As many as fit a signature, of every type but texts that a D-Bus string cannot carry.
constexpr std::size_t kMaxArguments = 126;
constexpr std::size_t kMaxSize = std::size_t{1} << 20;
constexpr std::size_t kOwnArguments = 2;  // name and number

bool isCarried(const ZQBusArgument& argument) {
  return !std::holds_alternative<std::monostate>(argument);
}

}  // namespace

bool EventBundle::add(const std::string& event, const ZQBusMessage& content) {
  const std::size_t size = size_ + memoryOf(content);
  const std::size_t count = message_.argCount() + kOwnArguments + content.argCount();
  const std::vector<ZQBusArgument>& arguments = content.arguments();
  if (size > kMaxSize || count > kMaxArguments) return false;
  if (!std::all_of(arguments.begin(), arguments.end(), isCarried)) return false;
  size_ = size;
  message_.reserve(kMaxArguments);
  message_.appendString(event);
  message_.appendInt32(static_cast<int32_t>(content.argCount()));
  for (const ZQBusArgument& argument : arguments) message_.append(argument);
  return true;
}

ZQBusMessage EventBundle::take() {
  size_ = 0;
  return std::exchange(message_, {});
}

std::vector<std::shared_ptr<ZQBusMessage>> EventBundle::eventsOf(const ZQBusMessage& bundle) {
  std::vector<std::shared_ptr<ZQBusMessage>> events;
  const std::vector<ZQBusArgument>& all = bundle.arguments();
  for (std::size_t at = 0; at + kOwnArguments <= all.size();) {
    std::string name;
    bundle.readString(name, at);
    const auto count = static_cast<std::size_t>(bundle.readInt32(at + 1));
    at += kOwnArguments;
    const std::size_t end = at + std::min(count, all.size() - at);
    const auto event = std::make_shared<ZQBusMessage>(ZQBusMessageType::Event, std::move(name));
    for (; at < end; ++at) event->append(all[at]);
    events.push_back(event);
  }
  return events;
}

}  // namespace zq
