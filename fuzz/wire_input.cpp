#include "fuzz/wire_input.h"

#include <unistd.h>

#include <string_view>

namespace zq::fuzz {
namespace {

using wire::Message;
using wire::Order;
using wire::Writer;

constexpr int kDeepest = 40;
constexpr int kMostArguments = 6;
constexpr std::size_t kLongestBody = 100'000;
constexpr char kBasicTypes[] = {'y', 'b', 'n', 'q', 'i', 'u', 'x', 't', 'd', 's', 'o', 'g', 'h'};
// What libraries judge differently, or must not take for a text.
constexpr std::string_view kOddTexts[] = {
    "\xEF\xBF\xBE", "\xEF\xB7\x90", "\xFF", "\xED\xA0\x80", "a\0b", "/a/", "/", "ay", "a{sv}", "(",
};

/// Once in `times`; never behind the end of the input.
bool seldom(FuzzedDataProvider& input, int times) {
  return input.ConsumeIntegralInRange(1, times) == times;
}

std::string anyType(FuzzedDataProvider& input, int depth = 0) {
  const int kind = depth < kDeepest ? input.ConsumeIntegralInRange(0, 9) : 0;
  switch (kind) {
    case 5:
      return "v";
    case 6:
      return "ay";
    case 7:
      return 'a' + anyType(input, depth + 1);
    case 8:
      return '(' + anyType(input, depth + 1) + anyType(input, depth + 1) + ')';
    case 9:
      return std::string("a{") + input.PickValueInArray(kBasicTypes) + anyType(input, depth + 1) +
             '}';
    default:
      return {input.PickValueInArray(kBasicTypes)};
  }
}

std::size_t sizeOfNumber(char type) {
  switch (type) {
    case 'y':
      return 1;
    case 'n':
    case 'q':
      return 2;
    case 'x':
    case 't':
    case 'd':
      return 8;
    default:
      return 4;
  }
}

std::size_t alignmentOf(char type) {
  if (type == '(' || type == '{') return 8;
  return type == 'g' || type == 'v' ? 1 : sizeOfNumber(type);
}

std::string anyText(FuzzedDataProvider& input) {
  return input.ConsumeBool() ? input.ConsumeRandomLengthString(20)
                             : std::string(input.PickValueInArray(kOddTexts));
}

/// Few as a rule; many for the sake of what each costs. Those behind the end of the input are all
/// zeros.
int anyCount(FuzzedDataProvider& input) {
  return seldom(input, 16) ? input.ConsumeIntegralInRange(0, 3000)
                           : input.ConsumeIntegralInRange(0, 4);
}

void writeValue(FuzzedDataProvider& input, Writer& to, std::string_view& type, int depth);

/// The length of the first complete type.
std::size_t lengthOfType(std::string_view type) {
  std::size_t at = 0;
  while (type[at] == 'a') ++at;
  int open = 0;
  do {
    if (type[at] == '(' || type[at] == '{') ++open;
    if (type[at] == ')' || type[at] == '}') --open;
    ++at;
  } while (open > 0);
  return at;
}

void writeArray(FuzzedDataProvider& input, Writer& to, std::string_view element, int depth) {
  const int lie = seldom(input, 32) ? input.ConsumeIntegral<int8_t>() : 0;
  const auto write = [&](Writer& list) {
    int left = depth < 4 ? anyCount(input) : 1;
    for (; left > 0 && list.bytes().size() < kLongestBody; --left) {
      std::string_view type = element;
      writeValue(input, list, type, depth + 1);
    }
  };
  to.array(alignmentOf(element.front()), write, lie);
}

/// Writes a value of the first complete type and takes that type off.
void writeValue(FuzzedDataProvider& input, Writer& to, std::string_view& type, int depth) {
  const char first = type.front();
  type.remove_prefix(1);
  switch (first) {
    case 'a': {
      const std::size_t length = lengthOfType(type);
      writeArray(input, to, type.substr(0, length), depth);
      return type.remove_prefix(length);
    }
    case '(':
    case '{':
      to.align(8);
      while (type.front() != ')' && type.front() != '}') writeValue(input, to, type, depth);
      return type.remove_prefix(1);
    case 'v': {
      const std::string inner = depth < kDeepest ? anyType(input, depth + 1) : "y";
      std::string_view rest = inner;
      to.signature(inner);
      return writeValue(input, to, rest, depth + 1);
    }
    case 's':
    case 'o':
      to.text(anyText(input));
      return;
    case 'g':
      to.signature(anyText(input));
      return;
    default:
      to.number(sizeOfNumber(first), seldom(input, 4)
                                         ? input.ConsumeIntegral<uint64_t>()
                                         : input.ConsumeIntegralInRange<uint64_t>(0, 3));
  }
}

void setAnyBody(FuzzedDataProvider& input, Message& message) {
  Writer body(message.order);
  std::string signature;
  for (int left = input.ConsumeIntegralInRange(0, kMostArguments); left > 0; --left) {
    const std::string type = anyType(input);
    std::string_view rest = type;
    writeValue(input, body, rest, 0);
    signature += type;
  }
  if (signature.size() > 255) signature.resize(255);
  std::string bytes = body.bytes();
  // A body that is not what its signature says.
  if (seldom(input, 16)) {
    bytes.resize(bytes.size() + input.ConsumeIntegralInRange(0, 20));
    bytes.resize(bytes.size() - input.ConsumeIntegralInRange<std::size_t>(0, bytes.size()));
  }
  message.with(signature, bytes);
}

void setAnyHeader(FuzzedDataProvider& input, Message& message) {
  message.flags = input.ConsumeIntegral<uint8_t>();
  message.type = static_cast<wire::Type>(input.ConsumeIntegralInRange<uint8_t>(0, 5));
  message.version = input.ConsumeIntegralInRange<uint8_t>(0, 3);
  message.serial = input.ConsumeIntegralInRange<uint32_t>(0, 100);
  std::string Message::*const texts[] = {&Message::path,        &Message::interface,
                                         &Message::member,      &Message::errorName,
                                         &Message::destination, &Message::sender};
  message.*input.PickValueInArray(texts) = anyText(input);
  Writer fields(message.order);
  for (int left = input.ConsumeIntegralInRange(0, 3); left > 0; --left) {
    const std::string type = anyType(input, kDeepest - 2);
    std::string_view rest = type;
    fields.align(8).number(1, input.ConsumeIntegral<uint8_t>()).signature(type);
    writeValue(input, fields, rest, kDeepest - 2);
  }
  message.otherFields = fields.bytes();
}

/// Takes the upper halves off the lengths in a header: sd-bus makes room for all that is announced,
/// which would count as memory of ours.
void announceLess(std::string& bytes) {
  const std::size_t upper = static_cast<Order>(bytes[0]) == Order::Big ? 0 : 2;
  for (const std::size_t length : {std::size_t{4}, std::size_t{12}}) {
    bytes.replace(length + upper, 2, 2, '\0');
  }
}

void damage(FuzzedDataProvider& input, Sending& sending) {
  const std::size_t size = sending.bytes.size();
  for (int left = input.ConsumeIntegralInRange(1, 8); left > 0; --left) {
    const auto at = input.ConsumeIntegralInRange<std::size_t>(0, size - 1);
    sending.bytes[at] = static_cast<char>(input.ConsumeIntegral<uint8_t>());
  }
  if (input.ConsumeBool()) {
    sending.bytes.resize(input.ConsumeIntegralInRange<std::size_t>(0, size));
  }
  if (sending.bytes.size() >= wire::kFixedHeader) announceLess(sending.bytes);
  sending.inStep = sending.bytes.size() == size && wire::sizeOf(sending.bytes) == size;
}

}  // namespace

Sending anySending(FuzzedDataProvider& input, Message message, bool withDescriptors) {
  if (seldom(input, 8)) message.order = Order::Big;
  if (seldom(input, 4)) setAnyHeader(input, message);
  setAnyBody(input, message);
  Sending sending;
  if (seldom(input, 8)) message.announcedDescriptors = input.ConsumeIntegralInRange<uint32_t>(0, 3);
  if (withDescriptors && seldom(input, 8)) {
    sending.descriptors.assign(input.ConsumeIntegralInRange<std::size_t>(0, 3), STDERR_FILENO);
  }
  sending.bytes = wire::bytesOf(message);
  if (seldom(input, 8)) damage(input, sending);
  return sending;
}

}  // namespace zq::fuzz
