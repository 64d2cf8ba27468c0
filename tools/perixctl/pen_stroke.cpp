#include "tools/perixctl/pen_stroke.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <fstream>
#include <iterator>

#include "tools/perixctl/command_error.h"
#include "tools/perixctl/outcome.h"
#include "tools/perixctl/words.h"

namespace zq::ctl {
namespace {

constexpr std::array kMotions = {
    Word{PenMotion::Press, "press"},
    Word{PenMotion::Move, "move"},
    Word{PenMotion::Release, "release"},
};

struct NumberMember {
  const char* name;
  double StrokeEvent::*value;
  double least;
  double most;
  bool required;
  bool whole;
};
constexpr std::array kNumberMembers = {
    NumberMember{"x", &StrokeEvent::x, -1e6, 1e6, true, false},
    NumberMember{"y", &StrokeEvent::y, -1e6, 1e6, true, false},
    NumberMember{"pressure", &StrokeEvent::pressure, 0, 1, true, false},
    NumberMember{"rotation", &StrokeEvent::rotation, -360, 360, false, false},
    NumberMember{"xTilt", &StrokeEvent::xTilt, -90, 90, false, true},
    NumberMember{"yTilt", &StrokeEvent::yTilt, -90, 90, false, true},
    NumberMember{"delayMs", &StrokeEvent::delayMs, 0, 60000, false, true},
};

// The mistake in a line, before it is known which line it is.
struct LineComplaint {
  std::string text;
};

PenMotion motionOf(const Json& object) {
  const auto member = object.find("type");
  if (member == object.end()) throw LineComplaint{R"("type" is missing)"};
  const auto motion =
      member->is_string() ? numberFor(kMotions, member->get<std::string>()) : std::nullopt;
  if (!motion) throw LineComplaint{R"("type" is not "press", "move" or "release")"};
  return static_cast<PenMotion>(*motion);
}

std::string rangeText(const NumberMember& member) {
  return std::string(member.whole ? "a whole number" : "a number") + " from " +
         Json(static_cast<int64_t>(member.least)).dump() + " to " +
         Json(static_cast<int64_t>(member.most)).dump();
}

double numberOf(const Json& object, const NumberMember& member) {
  const auto found = object.find(member.name);
  const std::string name = "\"" + std::string(member.name) + "\"";
  if (found == object.end()) {
    if (member.required) throw LineComplaint{name + " is missing"};
    return 0;
  }
  const double value = found->is_number() ? found->get<double>() : NAN;
  const bool fits = value >= member.least && value <= member.most;
  if (!fits || (member.whole && value != std::trunc(value))) {
    throw LineComplaint{name + " is not " + rangeText(member)};
  }
  return value;
}

void refuseUnknownMembers(const Json& object) {
  for (const auto& [key, value] : object.items()) {
    const bool known = key == "type" || std::any_of(kNumberMembers.begin(), kNumberMembers.end(),
                                                    [&name = key](const NumberMember& member) {
                                                      return member.name == name;
                                                    });
    if (!known) throw LineComplaint{"no member is called " + Json(key).dump()};
  }
}

Json parsed(const std::string& line) {
  try {
    return Json::parse(line);
  } catch (const Json::parse_error& error) {
    throw LineComplaint{"not JSON from column " + std::to_string(error.byte) + " on"};
  } catch (const Json::out_of_range&) {
    throw LineComplaint{"a number has too many digits or too large an exponent"};
  }
}

StrokeEvent eventIn(const std::string& line) {
  const Json object = parsed(line);
  if (!object.is_object()) throw LineComplaint{"not a JSON object"};
  refuseUnknownMembers(object);
  StrokeEvent event;
  event.motion = motionOf(object);
  for (const NumberMember& member : kNumberMembers) event.*member.value = numberOf(object, member);
  return event;
}

bool isBlank(const std::string& line) {
  return line.find_first_not_of(" \t\r") == std::string::npos;
}

}  // namespace

const char* wordOf(PenMotion motion) {
  return wordFor(kMotions, motion, "unknown");
}

std::vector<StrokeEvent> readStroke(const std::string& path) {
  std::ifstream file(path);
  std::vector<StrokeEvent> stroke;
  std::size_t number = 0;
  for (std::string line; std::getline(file, line);) {
    ++number;
    if (isBlank(line)) continue;
    try {
      stroke.push_back(eventIn(line));
    } catch (const LineComplaint& complaint) {
      throw CommandError(ExitCode::Usage,
                         path + ":" + std::to_string(number) + ": " + complaint.text);
    }
  }
  // The end of the file and nothing else; a directory, for one, opens but cannot be read.
  if (!file.eof()) throw CommandError(ExitCode::Usage, "cannot read " + path);
  if (stroke.empty()) throw CommandError(ExitCode::Usage, path + ": no event in it");
  return stroke;
}

}  // namespace zq::ctl
