// D-Bus messages written by hand, right or wrong: nothing is checked, as other libraries would.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace zq::wire {

enum class Order : char { Little = 'l', Big = 'B' };
enum class Type : uint8_t { Call = 1, Return = 2, Error = 3, Signal = 4 };

inline constexpr char kDaemon[] = "org.freedesktop.DBus";

/// Lays values out one behind the other, each aligned as counted from the first byte.
class Writer {
 public:
  using Content = std::function<void(Writer&)>;

  explicit Writer(Order order = Order::Little) : order_(order) {}

  Writer& align(std::size_t to);
  /// A number of 1, 2, 4 or 8 bytes; a bool and a descriptor's index have 4.
  Writer& number(std::size_t size, uint64_t value);
  Writer& text(std::string_view text) { return number(4, text.size()).raw(text).number(1, 0); }
  Writer& signature(std::string_view text) { return number(1, text.size()).raw(text).number(1, 0); }
  Writer& raw(std::string_view bytes) { return bytes_ += bytes, *this; }
  /// An array of elements of that alignment; its length is off by `lie`.
  Writer& array(std::size_t alignment, const Content& elements, int lie = 0);
  Writer& variant(std::string_view type, const Content& value) {
    return value(signature(type)), *this;
  }
  /// What stands between the brackets of a structure or an entry of a dictionary.
  Writer& structure(const Content& fields) { return fields(align(8)), *this; }

  Order order() const { return order_; }
  const std::string& bytes() const { return bytes_; }

 private:
  void setNumber(std::size_t at, std::size_t size, uint64_t value);

  Order order_;
  std::string bytes_;
};

/// A message as its header fields and the bytes of its body. Empty texts and zeros stand for fields
/// that are absent.
struct Message {
  Order order = Order::Little;
  Type type = Type::Call;
  uint8_t flags = 0;
  uint8_t version = 1;
  uint32_t serial = 1;
  std::string path, interface, member, errorName, destination, sender, signature;
  uint32_t replySerial = 0;
  uint32_t announcedDescriptors = 0;
  std::string otherFields;  ///< behind those, as they stand on the wire
  std::string body;

  static Message call(std::string path, std::string interface, std::string member);
  static Message signal(std::string path, std::string interface, std::string member);
  static Message replyTo(const Message& call, Type type = Type::Return);
  Message& with(std::string bodySignature, std::string bodyBytes);
  Message& to(const std::string& name) { return destination = name, *this; }
};

/// The bytes in front of the header fields, which tell the length of the rest.
inline constexpr std::size_t kFixedHeader = 16;

std::string bytesOf(const Message& message);
/// The length of the message that begins with these bytes, kFixedHeader at least.
std::size_t sizeOf(std::string_view bytes);
/// Reads a whole message that a library wrote, which is in order.
Message parse(std::string_view bytes);

}  // namespace zq::wire
