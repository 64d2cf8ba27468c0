// Recorded pen strokes: JSON lines, one event of the pen on each.
#pragma once

#include <string>
#include <vector>

namespace zq::ctl {

enum class PenMotion { Press, Move, Release };

/// "press", "move" or "release".
const char* wordOf(PenMotion motion);

/// One event, as its line gives it.
struct StrokeEvent {
  PenMotion motion = PenMotion::Move;
  double x = 0;  ///< pixels
  double y = 0;
  double pressure = 0;  ///< 0 to 1
  double rotation = 0;  ///< degrees
  double xTilt = 0;     ///< whole degrees
  double yTilt = 0;
  double delayMs = 0;  ///< before this event, since the one before
};

/// Reads a file from beginning to end. Throws CommandError (Usage), naming file and line, when any
/// of it is wrong; blank lines are skipped.
std::vector<StrokeEvent> readStroke(const std::string& path);

}  // namespace zq::ctl
