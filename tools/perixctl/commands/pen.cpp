// pen: strokes, as the packets that a desktop would get.
#include <cstdio>

#include "platform/text/hex.h"
#include "tools/perixctl/command.h"
#include "tools/perixctl/pen_stroke_player.h"

namespace zq::ctl {
namespace {

std::string hexOf(const void* bytes, std::size_t size) {
  return inHex({static_cast<const char*>(bytes), size});
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
  const std::string header = hexOf(&packet.header, sizeof(packet.header));
  char line[160];
  std::snprintf(line, sizeof(line), "%6u  %-7s  %#7x  %5d  %5d  %8.3f  %8.2f  %3d %3d  %s\n",
                packet.header.reqId, wordOf(event.motion), packet.code, packet.x, packet.y,
                packet.pressure, packet.rotation, packet.xTilt, packet.yTilt, header.c_str());
  return line;
}

Outcome replayStroke(Run& run) {
  const std::vector<StrokeEvent> stroke = readStroke(run.arguments.text("FILE"));
  run.indicator.end();
  const bool json = run.globals.json;
  PerixProxy& proxy = run.localProxy();
  if (!json) run.terminal.write(kHeading);
  playStroke(proxy, stroke, !run.arguments.has("--fast"),
             [&](const StrokeEvent& event, const unsigned char* bytes) {
               const auto packet = readPenPacket(bytes, kPenPacketSize);
               if (!packet) return;
               run.terminal.write(json ? renderJson(packetDocument(event, *packet, bytes))
                                       : packetLine(event, *packet));
             });
  return {.written = true};
}

}  // namespace

std::vector<Command> penCommands() {
  return {
      {"pen replay",
       {{"FILE", ArgumentKind::Stroke, "The recorded stroke: JSON lines, one event on each"},
        {"--fast", ArgumentKind::Flag, "Do not wait between the events", Presence::Optional}},
       "Show the packets that a recorded stroke makes; no desktop gets them, for the tool has no "
       "channel to one, and no service is needed",
       replayStroke,
       Asks::Nobody},
  };
}

}  // namespace zq::ctl
