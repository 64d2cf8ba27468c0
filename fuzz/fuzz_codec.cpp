// Messages to the wire form and back, several events in one, and wire messages with arguments that
// are not ours.
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <memory>
#include <vector>

#include "fuzz/input.h"
#include "platform/zqbus/event_bundle.h"
#include "platform/zqbus/sdbus/codec.h"
#include "platform/zqbus/sdbus/sd_bus_handles.h"

namespace zq::fuzz {
namespace {

// Enough for both forms on the wire: top-level arguments, and one list.
constexpr int kMostArguments = 400;

/// A connection to nobody, which messages need to be made on. Never closed: that would wait for an
/// answer.
sd_bus* unconnectedBus() {
  static sd_bus* const bus = [] {
    int ends[2];
    require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) == 0);
    sd_bus* made = nullptr;
    require(sd_bus_new(&made) >= 0 && sd_bus_set_fd(made, ends[0], ends[0]) >= 0 &&
            sd_bus_start(made) >= 0);
    return made;
  }();
  return bus;
}

SdBusMessage newMessage() {
  sd_bus_message* message = nullptr;
  require(sd_bus_message_new_signal(unconnectedBus(), &message, "/a", "a.b", "c") >= 0);
  return SdBusMessage(message);
}

ZQBusMessage decoded(sd_bus_message* message) {
  require(sd_bus_message_seal(message, 1, 0) >= 0 && sd_bus_message_rewind(message, 1) >= 0);
  ZQBusMessage result;
  require(decodeArguments(message, result) >= 0);
  return result;
}

bool same(const ZQBusArgument& one, const ZQBusArgument& other) {
  if (one.index() != other.index()) return false;
  const auto* bytes = std::get_if<ZQBusBytes>(&one);
  if (bytes != nullptr) return bytes->view() == std::get<ZQBusBytes>(other).view();
  if (const auto* text = std::get_if<std::string>(&one))
    return *text == std::get<std::string>(other);
  if (std::holds_alternative<uint16_t>(one))
    return std::get<uint16_t>(one) == std::get<uint16_t>(other);
  if (std::holds_alternative<int32_t>(one))
    return std::get<int32_t>(one) == std::get<int32_t>(other);
  return std::get<int64_t>(one) == std::get<int64_t>(other);
}

void requirePadding(const ZQBusMessage& message, std::size_t index) {
  uint32_t size = 0;
  const auto block = message.readBytes(index, size);
  const std::size_t end = std::max<std::size_t>(size + 1, ZQBusMessage::kReadable);
  for (std::size_t i = size; i < end; ++i) require(block[i] == 0);
}

bool carried(const ZQBusArgument& argument) {
  return !std::holds_alternative<std::monostate>(argument);
}

ZQBusMessage anyMessage(FuzzedDataProvider& input, int mostArguments) {
  ZQBusMessage message;
  const bool evenUncarried = input.ConsumeIntegralInRange(0, 15) == 0;
  const int count = input.ConsumeIntegralInRange(0, mostArguments);
  for (int i = 0; i < count; ++i) message.append(anyArgument(input, evenUncarried));
  return message;
}

void requireSame(const ZQBusMessage& sent, const ZQBusMessage& received) {
  const auto& before = sent.arguments();
  const auto& after = received.arguments();
  require(std::equal(before.begin(), before.end(), after.begin(), after.end(), same));
  for (std::size_t i = 0; i < after.size(); ++i) requirePadding(received, i);
}

void thereAndBack(FuzzedDataProvider& input) {
  const ZQBusMessage message = anyMessage(input, kMostArguments);
  const auto& sent = message.arguments();

  const SdBusMessage wire = newMessage();
  const int result = encodeArguments(message, wire.get());
  require((result >= 0) == std::all_of(sent.begin(), sent.end(), carried));
  if (result < 0) return;
  requireSame(message, decoded(wire.get()));
}

void bundleThereAndBack(FuzzedDataProvider& input) {
  EventBundle bundle;
  std::vector<ZQBusMessage> sent;
  for (int events = input.ConsumeIntegralInRange(0, 40); events > 0; --events) {
    const ZQBusMessage event = anyMessage(input, 8);
    if (bundle.add("event", event)) sent.push_back(event);
  }
  const SdBusMessage wire = newMessage();
  require(encodeArguments(bundle.take(), wire.get()) >= 0);
  const auto received = EventBundle::eventsOf(decoded(wire.get()));
  require(received.size() == sent.size());
  for (std::size_t i = 0; i < sent.size(); ++i) requireSame(sent[i], *received[i]);
}

/// What no service sends is read as some events or other.
void readAsBundle(FuzzedDataProvider& input) {
  const ZQBusMessage message = anyMessage(input, kMostArguments);
  std::size_t read = 0;
  for (const auto& event : EventBundle::eventsOf(message)) read += 2 + event->argCount();
  require(read <= message.argCount() && message.argCount() - read < 2);
}

// Arguments of other services: some with a nearest type of ours, some without.
struct Foreign {
  const char* signature;
  int (*append)(sd_bus_message*, const char* signature, int64_t value);
};

int appendNumber(sd_bus_message* to, const char* signature, int64_t value) {
  return sd_bus_message_append_basic(to, signature[0], &value);
}
int appendBool(sd_bus_message* to, const char*, int64_t value) {
  return sd_bus_message_append(to, "b", static_cast<int>(value & 1));
}
int appendPath(sd_bus_message* to, const char* signature, int64_t) {
  return sd_bus_message_append(to, signature, signature[0] == 'o' ? "/a/path" : "ay");
}
int appendEmptyArray(sd_bus_message* to, const char* signature, int64_t) {
  return sd_bus_message_append(to, signature, 0);
}
int appendVariant(sd_bus_message* to, const char*, int64_t value) {
  return sd_bus_message_append(to, "v", "(xs)", value, "inner");
}
int appendList(sd_bus_message* to, const char*, int64_t value) {
  return sd_bus_message_append(to, "av", 3, "x", value, "ay", 2, 1, 2, "v", "u", 7);
}

constexpr std::array kForeign = {
    Foreign{"y", appendNumber},      Foreign{"n", appendNumber},
    Foreign{"u", appendNumber},      Foreign{"t", appendNumber},
    Foreign{"d", appendNumber},      Foreign{"b", appendBool},
    Foreign{"o", appendPath},        Foreign{"g", appendPath},
    Foreign{"as", appendEmptyArray}, Foreign{"a{sv}", appendEmptyArray},
    Foreign{"v", appendVariant},     Foreign{"av", appendList},
};

void foreignArguments(FuzzedDataProvider& input) {
  const SdBusMessage wire = newMessage();
  const int count = input.ConsumeIntegralInRange(0, 20);
  bool oneList = false;
  for (int i = 0; i < count; ++i) {
    const Foreign& foreign = input.PickValueInArray(kForeign);
    oneList = count == 1 && foreign.append == appendList;
    require(foreign.append(wire.get(), foreign.signature, input.ConsumeIntegral<int64_t>()) >= 0);
  }
  // A single list is a message of its elements; everything else keeps its index.
  require(decoded(wire.get()).argCount() == static_cast<std::size_t>(oneList ? 3 : count));
}

}  // namespace
}  // namespace zq::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  using namespace zq::fuzz;
  FuzzedDataProvider input(data, size);
  constexpr std::array kProperties = {thereAndBack, foreignArguments, bundleThereAndBack,
                                      readAsBundle};
  input.PickValueInArray(kProperties)(input);
  return 0;
}
