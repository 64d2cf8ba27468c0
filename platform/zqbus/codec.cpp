#include "codec.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <span>
#include <string_view>

namespace zq {
namespace {

// D-Bus allows 255; sd-bus silently drops what it receives with exactly that many.
constexpr std::size_t kMaxSignature = 254;
constexpr std::size_t kMaxArray = std::size_t{64} << 20;
constexpr std::size_t kMaxMessage = std::size_t{128} << 20;
constexpr std::size_t kHeaderAllowance = 4096;
// What an argument may need on the wire beside its content: length, signature, alignment.
constexpr std::size_t kArgumentAllowance = 24;
// Room for as many arguments where blocks come as a list: those of a short one come by themselves.
constexpr std::size_t kLongList = 1024;

/// Length of the UTF-8 sequence at `text`, 0 when there is none that every D-Bus library takes:
/// surrogates, overlong forms and the code points that are no characters are out.
std::size_t sequenceLength(const unsigned char* text, std::size_t left) {
  const unsigned char lead = text[0];
  const std::size_t length = lead < 0x80   ? 1
                             : lead < 0xC2 ? 0
                             : lead < 0xE0 ? 2
                             : lead < 0xF0 ? 3
                             : lead < 0xF5 ? 4
                                           : 0;
  if (length <= 1 || length > left) return length > left ? 0 : length;
  uint32_t point = lead & (0xFFU >> (length + 1));
  for (std::size_t i = 1; i < length; ++i) {
    if ((text[i] & 0xC0) != 0x80) return 0;
    point = point << 6 | (text[i] & 0x3F);
  }
  const bool overlong = (length == 3 && point < 0x800) || (length == 4 && point < 0x10000);
  const bool surrogate = point >= 0xD800 && point < 0xE000;
  const bool noCharacter = (point & 0xFFFE) == 0xFFFE || (point >= 0xFDD0 && point <= 0xFDEF);
  return overlong || surrogate || noCharacter || point > 0x10FFFF ? 0 : length;
}

bool fitsString(const std::string& text) {
  const auto* at = reinterpret_cast<const unsigned char*>(text.data());
  for (std::size_t left = text.size(); left > 0;) {
    const std::size_t length = *at != 0 ? sequenceLength(at, left) : 0;
    if (length == 0) return false;
    at += length;
    left -= length;
  }
  return true;
}

// --- Encoding -----------------------------------------------------------------------------------

/// The D-Bus type of an argument.
const char* signatureOf(const ZQBusArgument& argument) {
  struct {
    const char* operator()(std::monostate) const { return nullptr; }
    const char* operator()(uint16_t) const { return "q"; }
    const char* operator()(int32_t) const { return "i"; }
    const char* operator()(int64_t) const { return "x"; }
    const char* operator()(const std::string& text) const {
      return fitsString(text) ? "s" : "(ay)";
    }
    const char* operator()(const ZQBusBytes&) const { return "ay"; }
  } visitor;
  return std::visit(visitor, argument);
}

std::size_t contentSize(const ZQBusArgument& argument) {
  if (const auto* text = std::get_if<std::string>(&argument)) return text->size();
  if (const auto* bytes = std::get_if<ZQBusBytes>(&argument)) return bytes->size;
  return sizeof(int64_t);
}

struct Encoder {
  sd_bus_message* to;

  int operator()(std::monostate) const { return -EINVAL; }
  int operator()(uint16_t value) const { return sd_bus_message_append_basic(to, 'q', &value); }
  int operator()(int32_t value) const { return sd_bus_message_append_basic(to, 'i', &value); }
  int operator()(int64_t value) const { return sd_bus_message_append_basic(to, 'x', &value); }
  int operator()(const ZQBusBytes& bytes) const {
    return sd_bus_message_append_array(to, 'y', bytes.data.get(), bytes.size);
  }
  int operator()(const std::string& text) const {
    if (fitsString(text)) return sd_bus_message_append_basic(to, 's', text.c_str());
    int result = sd_bus_message_open_container(to, 'r', "ay");
    if (result >= 0) result = sd_bus_message_append_array(to, 'y', text.data(), text.size());
    return result >= 0 ? sd_bus_message_close_container(to) : result;
  }
};

using Arguments = std::span<const ZQBusArgument>;

int encodeEach(Arguments arguments, sd_bus_message* to) {
  for (const ZQBusArgument& argument : arguments) {
    const int result = std::visit(Encoder{to}, argument);
    if (result < 0) return result;
  }
  return 0;
}

int encodeBlocks(Arguments blocks, sd_bus_message* to) {
  int result = sd_bus_message_open_container(to, 'a', "ay");
  if (result >= 0) result = encodeEach(blocks, to);
  return result >= 0 ? sd_bus_message_close_container(to) : result;
}

int encodeVariants(Arguments arguments, sd_bus_message* to) {
  int result = sd_bus_message_open_container(to, 'a', "v");
  for (const ZQBusArgument& argument : arguments) {
    if (result >= 0) result = sd_bus_message_open_container(to, 'v', signatureOf(argument));
    if (result >= 0) result = std::visit(Encoder{to}, argument);
    if (result >= 0) result = sd_bus_message_close_container(to);
    if (result < 0) return result;
  }
  return result >= 0 ? sd_bus_message_close_container(to) : result;
}

// --- Decoding -----------------------------------------------------------------------------------

template <typename Wire, typename Ours>
ZQBusArgument decodeNumber(sd_bus_message* from, char type) {
  Wire value{};
  sd_bus_message_read_basic(from, type, &value);
  return static_cast<Ours>(value);
}

ZQBusArgument decodeText(sd_bus_message* from, char type) {
  const char* text = nullptr;
  sd_bus_message_read_basic(from, type, &text);
  return std::string(text != nullptr ? text : "");
}

/// The content of the byte array that is next in `from`; it belongs to the message.
std::string_view readArray(sd_bus_message* from) {
  const void* data = nullptr;
  std::size_t size = 0;
  if (sd_bus_message_read_array(from, 'y', &data, &size) < 0) size = 0;
  return {static_cast<const char*>(data), size};
}

ZQBusBytes decodeBytes(sd_bus_message* from) {
  const std::string_view content = readArray(from);
  return ZQBusBytes::copyOf(content.data(), static_cast<uint32_t>(content.size()));
}

ZQBusArgument decodeTextOfAnyBytes(sd_bus_message* from) {
  sd_bus_message_enter_container(from, 'r', "ay");
  const ZQBusBytes bytes = decodeBytes(from);
  sd_bus_message_exit_container(from);
  return std::string(bytes.view());
}

/// Reads the argument that is next in `from`, whose type is `type` with the element type
/// `contents` when it is a container.
ZQBusArgument decodeArgument(sd_bus_message* from, char type, const char* contents) {
  switch (type) {
    case 'q':
      return decodeNumber<uint16_t, uint16_t>(from, type);
    case 'i':
      return decodeNumber<int32_t, int32_t>(from, type);
    case 'x':
      return decodeNumber<int64_t, int64_t>(from, type);
    case 'y':
      return decodeNumber<uint8_t, int32_t>(from, type);
    case 'b':
      return decodeNumber<int, int32_t>(from, type);
    case 'n':
      return decodeNumber<int16_t, int32_t>(from, type);
    case 'u':
      return decodeNumber<uint32_t, int32_t>(from, type);
    case 't':
      return decodeNumber<uint64_t, int64_t>(from, type);
    case 's':
    case 'o':
    case 'g':
      return decodeText(from, type);
    case 'a':
      if (std::strcmp(contents, "y") == 0) return decodeBytes(from);
      break;
    case 'r':
      if (std::strcmp(contents, "ay") == 0) return decodeTextOfAnyBytes(from);
      break;
    default:
      break;
  }
  sd_bus_message_skip(from, nullptr);
  return std::monostate{};
}

/// The blocks of one list, many to an allocation: they live and die together as a rule. They lie in
/// the order of the list, in which a processor fetches memory ahead of time.
class BlockPool {
 public:
  ZQBusBytes copyOf(std::string_view content) {
    const std::size_t padded = std::max(content.size() + 1, ZQBusBytes::kReadable);
    const std::size_t units = (padded + sizeof(Unit) - 1) / sizeof(Unit);
    if (free_.size() < units) grow(units);
    auto* const bytes = reinterpret_cast<uint8_t*>(free_.data());
    free_ = free_.subspan(units);
    std::memcpy(bytes, content.data(), content.size());
    std::memset(bytes + content.size(), 0, padded - content.size());
    return {std::shared_ptr<uint8_t[]>(chunk_, bytes), static_cast<uint32_t>(content.size())};
  }

 private:
  using Unit = std::max_align_t;

  void grow(std::size_t units) {
    const std::size_t size = std::max(units, kChunkUnits);
    chunk_ = std::make_shared_for_overwrite<Unit[]>(size);
    free_ = {chunk_.get(), size};
  }

  static constexpr std::size_t kChunkUnits = (std::size_t{32} << 10) / sizeof(Unit);
  std::shared_ptr<Unit[]> chunk_;
  std::span<Unit> free_;  // what is left of the chunk
};

void decodeBlocks(sd_bus_message* from, ZQBusMessage& to) {
  BlockPool blocks;
  to.reserve(kLongList);
  sd_bus_message_enter_container(from, 'a', "ay");
  while (sd_bus_message_at_end(from, 0) == 0) to.append(blocks.copyOf(readArray(from)));
  sd_bus_message_exit_container(from);
}

/// Decodes every argument up to the end of the message, or of the container that was entered.
void decodeRest(sd_bus_message* from, ZQBusMessage& to) {
  char type = 0;
  const char* contents = nullptr;
  while (sd_bus_message_peek_type(from, &type, &contents) > 0) {
    if (type == 'a' && std::strcmp(contents, "ay") == 0) {
      decodeBlocks(from, to);
    } else {
      to.append(decodeArgument(from, type, contents));
    }
  }
}

void decodeVariants(sd_bus_message* from, ZQBusMessage& to) {
  sd_bus_message_enter_container(from, 'a', "v");
  const char* contents = nullptr;
  char type = 0;
  while (sd_bus_message_peek_type(from, &type, &contents) > 0) {
    const std::string inner = contents;
    if (sd_bus_message_enter_container(from, 'v', inner.c_str()) <= 0) break;
    decodeRest(from, to);
    if (sd_bus_message_exit_container(from) < 0) break;
  }
  sd_bus_message_exit_container(from);
}

}  // namespace

int encodeArguments(const ZQBusMessage& from, sd_bus_message* to) {
  const Arguments all = from.arguments();
  std::size_t leading = 0;    // those before the last run of blocks
  std::size_t signature = 0;  // of them all, and
  std::size_t head = 0;       // of the leading ones
  std::size_t size = kHeaderAllowance;
  for (std::size_t i = 0; i < all.size(); ++i) {
    const char* type = signatureOf(all[i]);
    if (type == nullptr) return -EINVAL;
    const std::size_t content = contentSize(all[i]);
    if (content > kMaxArray) return -EMSGSIZE;
    signature += std::strlen(type);
    size += content + kArgumentAllowance;
    if (std::holds_alternative<ZQBusBytes>(all[i])) continue;
    leading = i + 1;
    head = signature;
  }
  if (signature <= kMaxSignature) return size > kMaxMessage ? -EMSGSIZE : encodeEach(all, to);
  if (size > kMaxArray) return -EMSGSIZE;
  if (head + std::strlen("aay") > kMaxSignature) return encodeVariants(all, to);
  const int result = encodeEach(all.first(leading), to);
  return result >= 0 ? encodeBlocks(all.subspan(leading), to) : result;
}

void decodeArguments(sd_bus_message* from, ZQBusMessage& to) {
  if (sd_bus_message_has_signature(from, "av") > 0) {
    decodeVariants(from, to);
  } else {
    decodeRest(from, to);
  }
}

std::size_t memoryOf(const ZQBusMessage& message) {
  std::size_t size = sizeof message;
  for (const ZQBusArgument& argument : message.arguments()) {
    size += sizeof argument + contentSize(argument);
    if (std::holds_alternative<ZQBusBytes>(argument)) size += ZQBusBytes::kReadable;
  }
  return size;
}

}  // namespace zq
