#include "codec.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <span>
#include <string_view>

#include "platform/text/utf8.h"
#include "platform/zqbus/limits.h"
#include "platform/zqbus/memory_of.h"

namespace zq {
namespace {

// D-Bus allows 255; sd-bus silently drops messages that it receives with exactly 255.
constexpr std::size_t kMaxSignature = 254;
constexpr std::size_t kHeaderAllowance = 4096;
// The bytes of an argument on the wire beside its content: length, signature, alignment.
constexpr std::size_t kArgumentAllowance = 24;
// Of two arrays in a row, the first has no room for the first block of the second: the two together
// take more than kMaxContent.
constexpr std::size_t kMostLists = 2 * kMaxMessage / kMaxContent - 1;
// The arguments that memory is reserved for when a message begins with a list.
constexpr std::size_t kListRoom = 128;

/// Whether a D-Bus string of every library can hold the text: UTF-8 without NUL and noncharacters.
bool fitsString(std::string_view text) {
  if (!isUtf8(text)) return false;
  while (!text.empty()) {
    const char32_t codePoint = takeCharacter(text);
    if (codePoint == 0 || isNoncharacter(codePoint)) return false;
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

/// How many of the blocks one array can hold, from the first.
std::size_t fittingBlocks(Arguments blocks) {
  std::size_t size = 0;
  std::size_t count = 0;
  for (; count < blocks.size(); ++count) {
    size += contentSize(blocks[count]) + kArgumentAllowance;
    if (size > kMaxContent) break;
  }
  return count;
}

int encodeBlocks(Arguments blocks, sd_bus_message* to) {
  int result = 0;
  while (result >= 0 && !blocks.empty()) {
    const std::size_t count = fittingBlocks(blocks);
    if (count == 0) return -EMSGSIZE;
    result = sd_bus_message_open_container(to, 'a', "ay");
    if (result >= 0) result = encodeEach(blocks.first(count), to);
    if (result >= 0) result = sd_bus_message_close_container(to);
    blocks = blocks.subspan(count);
  }
  return result;
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

/// The blocks of one message, many to a chunk of memory: they are usually freed together. They lie
/// in the order of the message, so that a processor prefetches the next. A chunk is freed with the
/// last of its blocks.
class BlockPool {
 public:
  /// Room for `size` bytes and a zero byte behind them.
  ZQBusBytes take(std::size_t size) {
    const std::size_t units = size / sizeof(Unit) + 1;
    if (free_.size() < units) grow(units);
    auto* const bytes = reinterpret_cast<uint8_t*>(free_.data());
    free_ = free_.subspan(units);
    bytes[size] = 0;
    return {std::shared_ptr<uint8_t[]>(chunk_, bytes), static_cast<uint32_t>(size)};
  }

  ZQBusBytes copyOf(const void* content, std::size_t size) {
    if (size == 0) return noBytes();
    ZQBusBytes block = take(size);
    std::memcpy(block.data.get(), content, size);
    return block;
  }

 private:
  using Unit = std::max_align_t;

  static const ZQBusBytes& noBytes() {
    static const auto* const none = new ZQBusBytes(ZQBusBytes::uninitialized(0));
    return *none;
  }

  /// Chunks double up to kMaxChunkUnits, so that the unused rest of the newest chunk is never
  /// larger than all blocks before it, nor than one chunk.
  void grow(std::size_t units) {
    const std::size_t size = std::max(units, nextUnits_);
    nextUnits_ = std::min(2 * size, kMaxChunkUnits);
    chunk_ = std::make_shared_for_overwrite<Unit[]>(size);
    free_ = {chunk_.get(), size};
  }

  static constexpr std::size_t kMaxChunkUnits = (std::size_t{32} << 10) / sizeof(Unit);
  std::size_t nextUnits_ = 1;
  std::shared_ptr<Unit[]> chunk_;
  std::span<Unit> free_;  // the rest of the chunk
};

/// Reads the arguments of a message up to the first that cannot be read: sd-bus does not advance
/// beyond that.
class Decoder {
 public:
  Decoder(sd_bus_message* from, ZQBusMessage& to) : from_(from), to_(to) {}

  int decode() {
    return sd_bus_message_has_signature(from_, "av") > 0 ? decodeVariants() : decodeRest();
  }

 private:
  /// Descriptors come in variants alone: the service refuses calls with one in their signature, and
  /// other connections carry none. A message that is kept would keep its descriptors open.
  static bool holdsDescriptors(const char* signature) {
    return std::strchr(signature, SD_BUS_TYPE_UNIX_FD) != nullptr;
  }

  int decodeRest();
  int decodeVariants();
  int decodeBlocks();
  int decodeArgument(char type, const char* contents);
  int decodeText(char type);
  int decodeTextOfAnyBytes();
  template <typename Wire, typename Ours>
  int decodeNumber(char type);
  int readBlock(ZQBusBytes& block);
  int readForeignBlock(ZQBusBytes& block);
  int add(ZQBusArgument argument);

  sd_bus_message* const from_;
  ZQBusMessage& to_;
  BlockPool blocks_;
};

int Decoder::add(ZQBusArgument argument) {
  if (to_.argCount() >= kMaxArguments) return -EMSGSIZE;
  to_.append(std::move(argument));
  return 1;
}

template <typename Wire, typename Ours>
int Decoder::decodeNumber(char type) {
  Wire value{};
  const int result = sd_bus_message_read_basic(from_, type, &value);
  return result > 0 ? add(static_cast<Ours>(value)) : result;
}

int Decoder::decodeText(char type) {
  const char* text = nullptr;
  const int result = sd_bus_message_read_basic(from_, type, &text);
  return result > 0 ? add(std::string(text)) : result;
}

/// sd-bus reads whole arrays of a message in this machine's byte order only.
int Decoder::readForeignBlock(ZQBusBytes& block) {
  int result = sd_bus_message_enter_container(from_, 'a', "y");
  std::string content;
  uint8_t byte = 0;
  while (result > 0 && (result = sd_bus_message_read_basic(from_, 'y', &byte)) > 0) {
    content.push_back(static_cast<char>(byte));
  }
  if (result >= 0) result = sd_bus_message_exit_container(from_);
  block = blocks_.copyOf(content.data(), content.size());
  return result;
}

int Decoder::readBlock(ZQBusBytes& block) {
  const void* data = nullptr;
  std::size_t size = 0;
  const int result = sd_bus_message_read_array(from_, 'y', &data, &size);
  if (result == -EOPNOTSUPP) return readForeignBlock(block);
  if (result > 0) block = blocks_.copyOf(data, size);
  return result;
}

int Decoder::decodeTextOfAnyBytes() {
  ZQBusBytes bytes;
  int result = sd_bus_message_enter_container(from_, 'r', "ay");
  if (result > 0) result = readBlock(bytes);
  if (result > 0) result = sd_bus_message_exit_container(from_);
  return result > 0 ? add(std::string(bytes.view())) : result;
}

/// Reads the argument that is next, whose type is `type` with the element type `contents` when it
/// is a container.
int Decoder::decodeArgument(char type, const char* contents) {
  switch (type) {
    case 'q':
      return decodeNumber<uint16_t, uint16_t>(type);
    case 'i':
      return decodeNumber<int32_t, int32_t>(type);
    case 'x':
      return decodeNumber<int64_t, int64_t>(type);
    case 'y':
      return decodeNumber<uint8_t, int32_t>(type);
    case 'b':
      return decodeNumber<int, int32_t>(type);
    case 'n':
      return decodeNumber<int16_t, int32_t>(type);
    case 'u':
      return decodeNumber<uint32_t, int32_t>(type);
    case 't':
      return decodeNumber<uint64_t, int64_t>(type);
    case 's':
    case 'o':
    case 'g':
      return decodeText(type);
    case 'a':
      if (std::strcmp(contents, "ay") == 0) return decodeBlocks();
      if (std::strcmp(contents, "y") == 0) {
        ZQBusBytes block;
        const int result = readBlock(block);
        return result > 0 ? add(std::move(block)) : result;
      }
      break;
    case 'r':
      if (std::strcmp(contents, "ay") == 0) return decodeTextOfAnyBytes();
      break;
    case 'v':
      if (holdsDescriptors(contents)) return -EBADMSG;
      break;
    default:
      break;
  }
  const int skipped = sd_bus_message_skip(from_, nullptr);
  return skipped > 0 ? add(std::monostate{}) : skipped;
}

/// A list of blocks: each is an argument.
int Decoder::decodeBlocks() {
  int result = sd_bus_message_enter_container(from_, 'a', "ay");
  if (to_.argCount() == 0) to_.reserve(kListRoom);
  while (result > 0) {
    const int end = sd_bus_message_at_end(from_, 0);
    if (end != 0) {
      result = end > 0 ? sd_bus_message_exit_container(from_) : end;
      break;
    }
    ZQBusBytes block;
    result = readBlock(block);
    if (result > 0) result = add(std::move(block));
  }
  return result;
}

/// Every argument up to the end of the message, or of the container that was entered. 0 at the end.
int Decoder::decodeRest() {
  char type = 0;
  const char* contents = nullptr;
  int result = 0;
  while ((result = sd_bus_message_peek_type(from_, &type, &contents)) > 0) {
    result = decodeArgument(type, contents);
    // Without progress the same argument would come again for ever.
    if (result <= 0) return result < 0 ? result : -EBADMSG;
  }
  return result;
}

int Decoder::decodeVariants() {
  int result = sd_bus_message_enter_container(from_, 'a', "v");
  char type = 0;
  const char* contents = nullptr;
  while (result > 0 && (result = sd_bus_message_peek_type(from_, &type, &contents)) > 0) {
    const std::string inner = contents;
    if (holdsDescriptors(inner.c_str())) return -EBADMSG;
    result = sd_bus_message_enter_container(from_, 'v', inner.c_str());
    if (result > 0) result = decodeRest();
    if (result == 0) result = sd_bus_message_exit_container(from_);
  }
  return result >= 0 ? sd_bus_message_exit_container(from_) : result;
}

}  // namespace

int encodeArguments(const ZQBusMessage& from, sd_bus_message* to) {
  const Arguments all = from.arguments();
  std::size_t leading = 0;    // arguments before the last run of blocks
  std::size_t signature = 0;  // the length of the signature of all arguments, and
  std::size_t head = 0;       // of the leading arguments
  std::size_t size = kHeaderAllowance;
  for (std::size_t i = 0; i < all.size(); ++i) {
    const char* type = signatureOf(all[i]);
    if (type == nullptr) return -EINVAL;
    const std::size_t content = contentSize(all[i]);
    if (content > kMaxContent) return -EMSGSIZE;
    signature += std::strlen(type);
    size += content + kArgumentAllowance;
    if (std::holds_alternative<ZQBusBytes>(all[i])) continue;
    leading = i + 1;
    head = signature;
  }
  if (size > kMaxMessage) return -EMSGSIZE;
  if (signature <= kMaxSignature) return encodeEach(all, to);
  if (head + kMostLists * std::strlen("aay") > kMaxSignature) {
    return size > kMaxContent ? -EMSGSIZE : encodeVariants(all, to);
  }
  const int result = encodeEach(all.first(leading), to);
  return result >= 0 ? encodeBlocks(all.subspan(leading), to) : result;
}

int decodeArguments(sd_bus_message* from, ZQBusMessage& to) noexcept try {
  const int result = Decoder(from, to).decode();
  to.shrinkToFit();
  return std::min(result, 0);
} catch (const std::exception&) {
  return -ENOMEM;
}

}  // namespace zq
