/// @file
/// ZQBusMessage: a message of the bus, as a plain value.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace zq {

#pragma GCC visibility push(default)

/// The kind of a message. Two is a method's return; a caller treats everything else as a failure.
enum class ZQBusMessageType : int { MethodCall = 1, MethodReturn = 2, Error = 3, Event = 4 };

/// The cause of a message of type Error. `Service` comes from the service, the others from this
/// library or the bus; string 0 of the message says the same in words.
enum class ZQBusFailure {
  None,        ///< not a failure
  Service,     ///< the service answered the call with an error
  TimedOut,    ///< the service did not answer within the call's time-out
  PeerGone,    ///< the service left the bus before it answered, or had left it already
  BusGone,     ///< the connection to the bus is lost
  TooLarge,    ///< an argument or the whole message is larger than the bus carries
  Unusable,    ///< the connection cannot be used here (after fork, for instance)
  Unreadable,  ///< the service answered, and the answer cannot be read
};

/// How the messages travel.
enum class ZQBusWay {
  Broker,     ///< through the bus
  Direct,     ///< on a line of their own between client and service
  InProcess,  ///< within this process
};

/// The way's word in traces. A literal.
constexpr const char* TextOf(ZQBusWay way) {
  switch (way) {
    case ZQBusWay::Broker:
      return "broker";
    case ZQBusWay::Direct:
      return "direct";
    case ZQBusWay::InProcess:
      return "inprocess";
  }
  return "?";
}

/// The byte block of an argument: `size` bytes, and a zero byte behind them. `data` is
/// aligned for every type.
struct ZQBusBytes {
  std::shared_ptr<uint8_t[]> data;  ///< never null in a message
  uint32_t size = 0;                ///< bytes, without the zero byte

  /// A block whose `size` bytes are not yet set; the zero byte behind them is.
  static ZQBusBytes uninitialized(uint32_t size);
  /// A block that holds a copy of `size` bytes at `source`.
  static ZQBusBytes copyOf(const void* source, uint32_t size);

  /// The bytes as text; valid as long as a block of this data lives.
  std::string_view view() const { return {reinterpret_cast<const char*>(data.get()), size}; }
};

/// One argument. `std::monostate` stands for an argument of a type that the bus does not carry; it
/// keeps the others at their index.
using ZQBusArgument =
    std::variant<std::monostate, uint16_t, int32_t, int64_t, std::string, ZQBusBytes>;

/// A message: a type, a name, and typed arguments in the order in which they were appended.
///
/// A plain value: copying copies the arguments (byte blocks are shared, and never change), nothing
/// refers to a connection, and no operation blocks. One thread at a time may change a message; any
/// number of threads may read a message that no thread changes.
///
/// Readers address arguments by index from 0, in any order. A wrong index and a wrong type read as
/// 0, an empty string or an empty block; reading never fails otherwise.
class ZQBusMessage {
 public:
  ZQBusMessage() = default;
  /// `name` is a method's or an event's name, empty in a reply.
  ZQBusMessage(ZQBusMessageType type, std::string name) : type_(type), name_(std::move(name)) {}

  /// A failed reply: type Error, without arguments yet; string 0 is to tell the cause.
  static ZQBusMessage failed(ZQBusFailure failure);
  /// The same, with the cause in words.
  static ZQBusMessage failed(ZQBusFailure failure, std::string text);

  /// Appends a number of 16 bits.
  virtual void appendUInt16(uint16_t value);
  /// Takes signed and unsigned values alike; the 32 bits travel as they are.
  virtual void appendInt32(int32_t value);
  /// Takes signed and unsigned values alike; the 64 bits travel as they are.
  virtual void appendInt64(int64_t value);
  /// Appends the text up to the NUL as a string. Null counts as an empty text.
  virtual void appendCString(const char* text);
  /// Appends a text, NULs included.
  virtual void appendString(std::string text);
  /// Appends a copy of `size` bytes at `data`; `data` may be null when `size` is 0.
  virtual void appendBytes(const void* data, uint32_t size);
  /// Marks the argument that was appended last as secret: traces and toDebugString() show its size
  /// alone. The mark does not travel.
  void markSecret();
  /// Whether markSecret() marked argument `index`.
  bool isSecret(std::size_t index) const;

  /// Number `index`.
  virtual int32_t readInt32(std::size_t index) const;
  /// Sets `out` to string `index` and returns it.
  virtual std::string& readString(std::string& out, std::size_t index) const;
  /// The bytes that can be read of each block of readBytes(), whatever the block's length.
  static constexpr std::size_t kReadable = 1024;
  /// Block `index`, never null, and its length. It lives as long as the pointer is held. Zero bytes
  /// follow the block: at least one, and up to `kReadable` bytes in all. So a record of a fixed
  /// layout of up to `kReadable` bytes, and a text at the end of a record, can be read in place,
  /// whatever the sender sent. Copies a shorter block.
  virtual std::shared_ptr<uint8_t[]> readBytes(std::size_t index, uint32_t& size) const;
  /// The number of arguments.
  virtual std::size_t argCount() const;

  virtual ~ZQBusMessage() = default;
  ZQBusMessage(const ZQBusMessage&) = default;             ///< shares the blocks
  ZQBusMessage(ZQBusMessage&&) = default;                  ///< moves the arguments
  ZQBusMessage& operator=(const ZQBusMessage&) = default;  ///< shares the blocks
  ZQBusMessage& operator=(ZQBusMessage&&) = default;       ///< moves the arguments

  /// The type as a number; 2 is a method's return.
  int type() const { return static_cast<int>(type_); }
  /// One line for a log: the type, the name and every argument; long texts and blocks are cut.
  std::string toDebugString() const;

  /// The name of the method or the event; empty in a reply.
  const std::string& name() const { return name_; }
  /// The cause of a message of type Error; `None` in others.
  ZQBusFailure failure() const { return failure_; }

  /// Block `index` in the message itself, without padding; null when `index` is not a block.
  const ZQBusBytes* bytesAt(std::size_t index) const;
  /// Number `index`.
  uint16_t readUInt16(std::size_t index) const;
  /// Number `index`.
  int64_t readInt64(std::size_t index) const;
  /// The arguments in their order.
  const std::vector<ZQBusArgument>& arguments() const { return arguments_; }
  /// Appends an argument of any type, for code that builds a message from another form.
  void append(ZQBusArgument argument);
  /// Makes room for `count` arguments.
  void reserve(std::size_t count) { arguments_.reserve(count); }
  /// Frees unused memory of the arguments, if it is much.
  void shrinkToFit();

 private:
  ZQBusMessageType type_ = ZQBusMessageType::MethodReturn;
  ZQBusFailure failure_ = ZQBusFailure::None;
  uint32_t secrets_ = 0;  // a bit for each argument; the last bit for all arguments from there on
  std::string name_;
  std::vector<ZQBusArgument> arguments_;
};

#pragma GCC visibility pop

}  // namespace zq
