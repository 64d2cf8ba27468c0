#include "tests/support/wire_bytes.h"

#include <array>
#include <utility>

namespace zq::wire {
namespace {

/// The header fields that are texts, in the order of their codes.
struct TextField {
  uint8_t code;
  char type;
  std::string Message::*text;
};
constexpr std::array kTextFields = {
    TextField{1, 'o', &Message::path},        TextField{2, 's', &Message::interface},
    TextField{3, 's', &Message::member},      TextField{4, 's', &Message::errorName},
    TextField{6, 's', &Message::destination}, TextField{7, 's', &Message::sender},
    TextField{8, 'g', &Message::signature},
};
struct NumberField {
  uint8_t code;
  uint32_t Message::*number;
};
constexpr std::array kNumberFields = {
    NumberField{5, &Message::replySerial},
    NumberField{9, &Message::announcedDescriptors},
};

std::size_t padded(std::size_t size, std::size_t to) {
  return (size + to - 1) / to * to;
}

void writeFields(Writer& to, const Message& message) {
  for (const auto& [code, type, member] : kTextFields) {
    const std::string& text = message.*member;
    if (text.empty()) continue;
    to.align(8).number(1, code).signature({&type, 1});
    type == 'g' ? to.signature(text) : to.text(text);
  }
  for (const auto& [code, member] : kNumberFields) {
    if (message.*member != 0) {
      to.align(8).number(1, code).signature("u").number(4, message.*member);
    }
  }
  if (!message.otherFields.empty()) to.align(8).raw(message.otherFields);
}

uint32_t numberAt(std::string_view bytes, std::size_t at) {
  const bool big = static_cast<Order>(bytes[0]) == Order::Big;
  uint32_t value = 0;
  for (std::size_t i = 0; i < 4; ++i) {
    value = value << 8 | static_cast<uint8_t>(bytes.at(at + (big ? i : 3 - i)));
  }
  return value;
}

/// Reads one field, whose code stands at `at`, and returns the place behind it. What other
/// libraries send is in order.
std::size_t readField(std::string_view bytes, std::size_t at, Message& to) {
  const auto code = static_cast<uint8_t>(bytes.at(at));
  const char type = bytes.at(at + 2);
  at += 4;  // code, length of the type, type, NUL
  if (type == 'u') {
    for (const auto& [known, member] : kNumberFields) {
      if (known == code) to.*member = numberAt(bytes, at);
    }
    return at + 4;
  }
  const std::size_t length = type == 'g' ? static_cast<uint8_t>(bytes.at(at)) : numberAt(bytes, at);
  at += type == 'g' ? 1 : 4;
  for (const auto& [known, known_type, member] : kTextFields) {
    if (known == code) to.*member = bytes.substr(at, length);
  }
  return at + length + 1;
}

}  // namespace

// --- Bytes ---------------------------------------------------------------------------------------

Writer& Writer::align(std::size_t to) {
  bytes_.resize(padded(bytes_.size(), to));
  return *this;
}

Writer& Writer::number(std::size_t size, uint64_t value) {
  align(size);
  bytes_.resize(bytes_.size() + size);
  setNumber(bytes_.size() - size, size, value);
  return *this;
}

void Writer::setNumber(std::size_t at, std::size_t size, uint64_t value) {
  for (std::size_t i = 0; i < size; ++i, value >>= 8) {
    bytes_[at + (order_ == Order::Little ? i : size - 1 - i)] = static_cast<char>(value);
  }
}

Writer& Writer::array(std::size_t alignment, const Content& elements, int lie) {
  number(4, 0);
  const std::size_t length = bytes_.size() - 4;
  align(alignment);
  const std::size_t start = bytes_.size();
  elements(*this);
  setNumber(length, 4, bytes_.size() - start + lie);
  return *this;
}

// --- Messages ------------------------------------------------------------------------------------

Message Message::call(std::string path, std::string interface, std::string member) {
  Message made;
  made.path = std::move(path);
  made.interface = std::move(interface);
  made.member = std::move(member);
  return made;
}

Message Message::signal(std::string path, std::string interface, std::string member) {
  Message made = call(std::move(path), std::move(interface), std::move(member));
  made.type = Type::Signal;
  return made;
}

Message Message::replyTo(const Message& call, Type type) {
  Message made;
  made.type = type;
  made.replySerial = call.serial;
  made.destination = call.sender;
  if (type == Type::Error) made.errorName = "org.example.Error";
  return made;
}

Message& Message::with(std::string bodySignature, std::string bodyBytes) {
  signature = std::move(bodySignature);
  body = std::move(bodyBytes);
  return *this;
}

std::string bytesOf(const Message& message) {
  Writer to(message.order);
  to.raw({reinterpret_cast<const char*>(&message.order), 1});
  to.number(1, static_cast<uint8_t>(message.type));
  to.number(1, message.flags).number(1, message.version);
  to.number(4, message.body.size()).number(4, message.serial);
  to.array(8, [&](Writer& fields) { writeFields(fields, message); });
  return to.align(8).raw(message.body).bytes();
}

std::size_t sizeOf(std::string_view bytes) {
  return padded(kFixedHeader + numberAt(bytes, 12), 8) + numberAt(bytes, 4);
}

Message parse(std::string_view bytes) {
  Message message;
  message.order = static_cast<Order>(bytes[0]);
  message.type = static_cast<Type>(bytes[1]);
  message.flags = static_cast<uint8_t>(bytes[2]);
  message.serial = numberAt(bytes, 8);
  const std::size_t end = kFixedHeader + numberAt(bytes, 12);
  for (std::size_t at = kFixedHeader; at < end;) at = padded(readField(bytes, at, message), 8);
  message.body = bytes.substr(padded(end, 8));
  return message;
}

}  // namespace zq::wire
