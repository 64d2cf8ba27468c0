// Plays a recorded stroke as a pen tablet would.
#pragma once

#include <functional>
#include <vector>

#include "perix/pen_packet.h"
#include "perix/perix_proxy.h"
#include "tools/perixctl/pen_stroke.h"

namespace zq::ctl {

/// Gets a packet, kPenPacketSize bytes that are gone after the return, and the event it is made of.
using PenPacketSink = std::function<void(const StrokeEvent& event, const unsigned char* packet)>;

/// Sends each event through the proxy, after its delay when `delayed`; `sink` takes the packets
/// before this returns. Opens the pen's port for that time and announces a pen when there is none.
void playStroke(PerixProxy& proxy, const std::vector<StrokeEvent>& stroke, bool delayed,
                const PenPacketSink& sink);

}  // namespace zq::ctl
