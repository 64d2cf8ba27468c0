#include "pen_port.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>

namespace zq {
namespace {

static_assert(std::endian::native == std::endian::little, "packets are written as they lie");

// The record: two bytes, then slots of eight of which four are used, but for the position's.
constexpr std::size_t kSlotsAt = 2;
constexpr std::size_t kSlotSize = 8;
enum Slot : std::size_t {
  kVersionSlot = 0,
  kCodeSlot = 3,
  kPositionSlot = 6,
  kAxesSlot = 17,
  kPressureSlot = 18,
  kRotationSlot = 19,
  kXTiltSlot = 20,
  kYTiltSlot = 21,
};
constexpr uint32_t kVersion = 3;
constexpr uint32_t kAxes = 15;
constexpr double kFraction = 1024.0;

/// Truncated toward zero, and limited to the range of int32.
uint32_t scaled(double value) {
  constexpr double kLeast = std::numeric_limits<int32_t>::min();
  constexpr double kMost = std::numeric_limits<int32_t>::max();
  const double cut = std::isnan(value) ? 0 : std::clamp(value * kFraction, kLeast, kMost);
  return static_cast<uint32_t>(static_cast<int32_t>(cut));
}

}  // namespace

bool PenPort::isPenPort(const std::string& name) {
  return name.find("space.port.2") != std::string::npos;
}

void PenPort::init(const std::string& name, bool opened, SendFunction send) {
  client_ = std::make_shared<Client>(Client{name, std::move(send)});
  opened_ = opened;
  header_ = {};
  header_.magic = kPenPortMagic;
  header_.cmd = kPenPacketCommand;
  header_.size = sizeof(PenPortHeader);
  requests_ = 0;
}

PenPortHeader PenPort::receive(const unsigned char* block) {
  PenPortHeader header;
  std::memcpy(&header, block, sizeof header);
  if (header.cmd == kPenAnnouncementCommand) penId_ = header.devId;
  return header;
}

uint32_t PenPort::eventCode(int type) {
  switch (type) {
    case kPenPress:
      penDown_ = true;
      return kPenDown;
    case kPenRelease:
      penDown_ = false;
      return kPenUp;
    case kPenMove:
      return penDown_ ? kPenDrag : kPenUp;
    default:
      return static_cast<uint32_t>(type);
  }
}

void PenPort::setSlot(std::size_t slot, uint32_t value, std::size_t offset) {
  std::memcpy(record_.data() + kSlotsAt + slot * kSlotSize + offset, &value, sizeof value);
}

void PenPort::record(const PenEvent& event, int x, int y) {
  setSlot(kVersionSlot, kVersion);
  setSlot(kCodeSlot, eventCode(event.type));
  setSlot(kPositionSlot, static_cast<uint32_t>(x));
  setSlot(kPositionSlot, static_cast<uint32_t>(y), sizeof(uint32_t));
  setSlot(kAxesSlot, kAxes);
  setSlot(kPressureSlot, scaled(event.pressure));
  setSlot(kRotationSlot, scaled(event.rotation));
  setSlot(kXTiltSlot, static_cast<uint32_t>(event.xTilt));
  setSlot(kYTiltSlot, static_cast<uint32_t>(event.yTilt));
}

std::optional<PenPortHeader> PenPort::send() {
  const auto client = client_;
  if (!opened_ || client == nullptr || !client->send || penId_ == 0) return std::nullopt;
  constexpr uint32_t kContent = sizeof(PenPortHeader) + kRecordSize;
  static_assert(sizeof kContent + kContent == kPenPacketSize);
  const auto packet = std::make_unique_for_overwrite<unsigned char[]>(kPenPacketSize + 1);
  header_.reqId = ++requests_;
  header_.devId = penId_;
  header_.size = kContent;
  const PenPortHeader header = header_;
  std::memcpy(packet.get(), &kContent, sizeof kContent);
  std::memcpy(packet.get() + sizeof kContent, &header, sizeof header);
  std::memcpy(packet.get() + sizeof kContent + sizeof header, record_.data(), kRecordSize);
  client->send(client->port, kPenPacketSize, packet.get());
  return header;
}

}  // namespace zq
