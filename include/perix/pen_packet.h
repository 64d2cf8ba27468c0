/// @file
/// What travels through the pen's port channel, for clients that carry the channel or look into it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>

namespace zq {

/// A name that makes a port channel the pen's.
inline constexpr char kPenPortName[] = "com.space.port.2";

/// What precedes every block on a port channel, little-endian, as it lies on the wire.
struct PenPortHeader {
  uint8_t magic;        ///< kPenPortMagic
  uint8_t devId;        ///< the pen's id, from 1
  uint16_t cmd;         ///< what the block is: one of the commands below
  uint32_t reqId;       ///< number of the packet, from 1
  uint32_t size;        ///< bytes from the beginning of the header to the end of the block
  uint8_t reserved[4];  ///< zero
};
static_assert(sizeof(PenPortHeader) == 16);

inline constexpr uint8_t kPenPortMagic = 0x27;             ///< the first byte of each block
inline constexpr uint16_t kPenPacketCommand = 2000;        ///< to the desktop: an event of the pen
inline constexpr uint16_t kPenAnnouncementCommand = 2101;  ///< from the desktop: the id of its pen

/// What the packets of PerixProxy::SendPenEvent and SendPenData say: an event of the pen.
struct PenPacket {
  PenPortHeader header;  ///< with kPenPacketCommand
  uint32_t code;         ///< one of the codes below, else the number of the tablet event's type
  int32_t x;             ///< pixels
  int32_t y;             ///< pixels
  double pressure;       ///< 0 to 1
  double rotation;       ///< degrees
  int32_t xTilt;         ///< degrees
  int32_t yTilt;         ///< degrees
};

inline constexpr uint32_t kPenDown = 0x26003;       ///< pressed
inline constexpr uint32_t kPenDrag = 0x26016;       ///< moving while pressed
inline constexpr uint32_t kPenUp = 0x26002;         ///< lifted, or moving without a press
inline constexpr std::size_t kPenPacketSize = 198;  ///< bytes of a whole packet

/// The block that announces a pen with that id, for PerixProxy::PortData.
inline std::array<unsigned char, sizeof(PenPortHeader)> penAnnouncement(uint8_t devId) {
  const PenPortHeader header{kPenPortMagic, devId, kPenAnnouncementCommand, 0, sizeof header, {}};
  std::array<unsigned char, sizeof header> block;
  std::memcpy(block.data(), &header, sizeof header);
  return block;
}

/// Reads a packet as the data-out function of PerixProxy::PortInit gets it; nothing when it is
/// none.
inline std::optional<PenPacket> readPenPacket(const unsigned char* data, std::size_t size) {
  // The length, the header and two bytes; then slots of eight bytes.
  constexpr std::size_t kHeaderAt = 4;
  constexpr std::size_t kSlotsAt = kHeaderAt + sizeof(PenPortHeader) + 2;
  constexpr double kFraction = 1024.0;
  if (size != kPenPacketSize) return std::nullopt;
  const auto slot = [data](std::size_t number, std::size_t offset = 0) {
    int32_t value;
    std::memcpy(&value, data + kSlotsAt + 8 * number + offset, sizeof value);
    return value;
  };
  PenPacket packet{};
  std::memcpy(&packet.header, data + kHeaderAt, sizeof packet.header);
  if (packet.header.magic != kPenPortMagic || packet.header.cmd != kPenPacketCommand) {
    return std::nullopt;
  }
  packet.code = static_cast<uint32_t>(slot(3));
  packet.x = slot(6);
  packet.y = slot(6, sizeof(int32_t));
  packet.pressure = slot(18) / kFraction;
  packet.rotation = slot(19) / kFraction;
  packet.xTilt = slot(20);
  packet.yTilt = slot(21);
  return packet;
}

}  // namespace zq
