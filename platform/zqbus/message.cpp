#include "zqbus/message.h"

#include "memory_of.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace zq {
namespace {

constexpr std::size_t kShownText = 64;
constexpr std::size_t kShownBytes = 16;

template <typename T>
T valueAt(const std::vector<ZQBusArgument>& arguments, std::size_t index) {
  if (index >= arguments.size()) return {};
  const T* value = std::get_if<T>(&arguments[index]);
  return value != nullptr ? *value : T{};
}

/// Memory for `capacity` bytes; the bytes behind the first `size` are zero.
std::shared_ptr<uint8_t[]> zeroPadded(std::size_t size, std::size_t capacity) {
  // Units of the widest alignment: records are read in place.
  using Unit = std::max_align_t;
  const auto units =
      std::make_shared_for_overwrite<Unit[]>((capacity + sizeof(Unit) - 1) / sizeof(Unit));
  auto* const bytes = reinterpret_cast<uint8_t*>(units.get());
  std::memset(bytes + size, 0, capacity - size);
  return {units, bytes};
}

void show(std::string& out, std::monostate) {
  out += '?';
}
void show(std::string& out, uint16_t value) {
  out += "q:" + std::to_string(value);
}
void show(std::string& out, int32_t value) {
  out += "i:" + std::to_string(value);
}
void show(std::string& out, int64_t value) {
  out += "x:" + std::to_string(value);
}

void show(std::string& out, const std::string& text) {
  out += "s:\"" + text.substr(0, kShownText) + '"';
  if (text.size() > kShownText) out += "...(" + std::to_string(text.size()) + ')';
}

void show(std::string& out, const ZQBusBytes& bytes) {
  out += "ay[" + std::to_string(bytes.size) + ']';
  char hex[4];
  for (std::size_t i = 0; i < std::min<std::size_t>(bytes.size, kShownBytes); ++i) {
    std::snprintf(hex, sizeof hex, " %02x", bytes.data[i]);
    out += hex;
  }
  if (bytes.size > kShownBytes) out += "...";
}

uint32_t secretBit(std::size_t index) {
  return uint32_t{1} << std::min<std::size_t>(index, 31);
}

}  // namespace

ZQBusBytes ZQBusBytes::uninitialized(uint32_t size) {
  return {zeroPadded(size, std::size_t{size} + 1), size};
}

ZQBusBytes ZQBusBytes::copyOf(const void* source, uint32_t size) {
  ZQBusBytes bytes = uninitialized(size);
  if (size > 0) std::memcpy(bytes.data.get(), source, size);
  return bytes;
}

ZQBusMessage ZQBusMessage::failed(ZQBusFailure failure) {
  ZQBusMessage message(ZQBusMessageType::Error, {});
  message.failure_ = failure;
  return message;
}

ZQBusMessage ZQBusMessage::failed(ZQBusFailure failure, std::string text) {
  ZQBusMessage message = failed(failure);
  message.appendString(std::move(text));
  return message;
}

void ZQBusMessage::markSecret() {
  if (!arguments_.empty()) secrets_ |= secretBit(arguments_.size() - 1);
}

bool ZQBusMessage::isSecret(std::size_t index) const {
  return (secrets_ & secretBit(index)) != 0;
}

void ZQBusMessage::append(ZQBusArgument argument) {
  // Memory for the arguments of most messages, at once.
  if (arguments_.capacity() == 0) arguments_.reserve(4);
  arguments_.push_back(std::move(argument));
}

void ZQBusMessage::shrinkToFit() {
  if (arguments_.capacity() > arguments_.size() + arguments_.size() / 8 + 4) {
    arguments_.shrink_to_fit();
  }
}

void ZQBusMessage::appendUInt16(uint16_t value) {
  append(value);
}
void ZQBusMessage::appendInt32(int32_t value) {
  append(value);
}
void ZQBusMessage::appendInt64(int64_t value) {
  append(value);
}
void ZQBusMessage::appendString(std::string text) {
  append(std::move(text));
}

void ZQBusMessage::appendCString(const char* text) {
  append(std::string(text != nullptr ? text : ""));
}

void ZQBusMessage::appendBytes(const void* data, uint32_t size) {
  append(ZQBusBytes::copyOf(data, size));
}

int32_t ZQBusMessage::readInt32(std::size_t index) const {
  return valueAt<int32_t>(arguments_, index);
}

std::string& ZQBusMessage::readString(std::string& out, std::size_t index) const {
  return out = valueAt<std::string>(arguments_, index);
}

std::shared_ptr<uint8_t[]> ZQBusMessage::readBytes(std::size_t index, uint32_t& size) const {
  const ZQBusBytes* const block = bytesAt(index);
  size = block != nullptr ? block->size : 0;
  if (size >= kReadable) return block->data;
  auto padded = zeroPadded(size, kReadable);
  if (size > 0) std::memcpy(padded.get(), block->data.get(), size);
  return padded;
}

std::size_t ZQBusMessage::argCount() const {
  return arguments_.size();
}

const ZQBusBytes* ZQBusMessage::bytesAt(std::size_t index) const {
  return index < arguments_.size() ? std::get_if<ZQBusBytes>(&arguments_[index]) : nullptr;
}

uint16_t ZQBusMessage::readUInt16(std::size_t index) const {
  return valueAt<uint16_t>(arguments_, index);
}

int64_t ZQBusMessage::readInt64(std::size_t index) const {
  return valueAt<int64_t>(arguments_, index);
}

std::string ZQBusMessage::toDebugString() const {
  static constexpr const char* kTypes[] = {"?", "call", "return", "error", "event"};
  std::string out = kTypes[type()];
  if (!name_.empty()) out += ' ' + name_;
  out += '(';
  for (std::size_t i = 0; i < arguments_.size(); ++i) {
    if (out.back() != '(') out += ", ";
    if (isSecret(i)) {
      out += "secret[" + std::to_string(contentSize(arguments_[i])) + ']';
    } else {
      std::visit([&out](const auto& value) { show(out, value); }, arguments_[i]);
    }
  }
  return out += ')';
}

std::size_t contentSize(const ZQBusArgument& argument) {
  if (const auto* text = std::get_if<std::string>(&argument)) return text->size();
  if (const auto* bytes = std::get_if<ZQBusBytes>(&argument)) return bytes->size;
  return sizeof(int64_t);
}

std::size_t memoryOf(const ZQBusMessage& message) {
  std::size_t size = sizeof message;
  for (const ZQBusArgument& argument : message.arguments()) {
    size += sizeof argument + contentSize(argument);
  }
  return size;
}

}  // namespace zq
