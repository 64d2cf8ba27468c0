// The pen's port channel: its name, whether it is open, and the packets that are sent through it.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "perix/pen_event.h"
#include "perix/pen_packet.h"

namespace zq {

/// For one thread at a time, without a lock: pen input comes from the user interface's thread. The
/// client's function may call back into it.
class PenPort {
 public:
  using SendFunction =
      std::function<unsigned int(const std::string&, unsigned int, unsigned char*)>;

  /// Whether a channel of that name is the pen's.
  static bool isPenPort(const std::string& name);

  /// Begins with a new channel. The pen and whether it is down stay as they were.
  void init(const std::string& name, bool opened, SendFunction send);
  void setOpened(bool opened) { opened_ = opened; }

  bool knowsPen() const { return penId_ != 0; }
  /// Reads the header of a block that arrived; a pen that it announces becomes the pen.
  PenPortHeader receive(const unsigned char* block);

  /// Makes the record of an event at a position, which need not be the event's own.
  void record(const PenEvent& event, int x, int y);
  /// Sends the last record. Returns its header, or nothing when it was dropped because there is no
  /// open port or no pen yet. Throws the exceptions of the client's function.
  std::optional<PenPortHeader> send();

 private:
  static constexpr std::size_t kRecordSize = 178;

  uint32_t eventCode(int type);
  void setSlot(std::size_t slot, uint32_t value, std::size_t offset = 0);

  // Shared with a packet in flight: the client's function may begin a new channel meanwhile.
  struct Client {
    std::string port;
    SendFunction send;
  };
  std::shared_ptr<const Client> client_;  // null before the first channel
  bool opened_ = false;
  PenPortHeader header_{};
  uint16_t requests_ = 0;
  uint8_t penId_ = 0;
  bool penDown_ = false;
  std::array<unsigned char, kRecordSize> record_{0xFF, 0x00};
};

}  // namespace zq
