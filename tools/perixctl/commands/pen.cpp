// pen: strokes, as the packets that a desktop would get.
#include <cstdio>

#include "tools/perixctl/command.h"
#include "tools/perixctl/pen_stroke_player.h"

namespace zq {
namespace {

std::string hexOf(const unsigned char* bytes, std::size_t size) {
  std::string text;
  for (std::size_t i = 0; i < size; ++i) {
    char digits[3];
    std::snprintf(digits, sizeof(digits), "%02x", bytes[i]);
    text += digits;
  }
  return text;
}

Json packetDocument(const StrokeEvent& event, const PenPacket& packet, const unsigned char* bytes) {
  return {{"packet", packet.header.reqId},
          {"type", wordOf(event.motion)},
          {"code", packet.code},
          {"x", packet.x},
          {"y", packet.y},
          {"pressure", packet.pressure},
          {"rotation", packet.rotation},
          {"xTilt", packet.xTilt},
          {"yTilt", packet.yTilt},
          {"hex", hexOf(bytes, kPenPacketSize)}};
}

constexpr const char* kHeading =
    "PACKET  TYPE        CODE      X      Y  PRESSURE  ROTATION  TILT     HEADER\n";

// Packets are shown as they go out, so the widths are set beforehand.
std::string packetLine(const StrokeEvent& event, const PenPacket& packet) {
  const std::string header =
      hexOf(reinterpret_cast<const unsigned char*>(&packet.header), sizeof(packet.header));
  char line[160];
  std::snprintf(line, sizeof(line), "%6u  %-7s  %#7x  %5d  %5d  %8.3f  %8.2f  %3d %3d  %s\n",
                packet.header.reqId, wordOf(event.motion), packet.code, packet.x, packet.y,
                packet.pressure, packet.rotation, packet.xTilt, packet.yTilt, header.c_str());
  return line;
}

Outcome replayStroke(Call& call) {
  const std::vector<StrokeEvent> stroke = readStroke(call.arguments.text("FILE"));
  call.indicator.end();
  const bool json = call.globals.json;
  PerixProxy& proxy = call.localProxy();
  if (!json) call.terminal.write(kHeading);
  playStroke(proxy, stroke, !call.arguments.has("--fast"),
             [&](const StrokeEvent& event, const unsigned char* bytes) {
               const auto packet = readPenPacket(bytes, kPenPacketSize);
               if (!packet) return;
               call.terminal.write(json ? renderJson(packetDocument(event, *packet, bytes))
                                        : packetLine(event, *packet));
             });
  return {.written = true};
}

}  // namespace

std::vector<Command> penCommands() {
  return {
      {"pen replay",
       {{"FILE", ArgumentKind::Name, "The recorded stroke: JSON lines, one event on each"},
        {"--fast", ArgumentKind::Flag, "Do not wait between the events", Presence::Optional}},
       "Show the packets that a recorded stroke makes; no desktop gets them, for the tool has no "
       "channel to one, and no service is needed",
       replayStroke},
  };
}

}  // namespace zq
