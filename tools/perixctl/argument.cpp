#include "tools/perixctl/argument.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <stdexcept>

#include "platform/text/hex.h"
#include "tools/perixctl/suggestion.h"

namespace zq::ctl {
namespace {

constexpr std::size_t kLabelLength = 127;

template <typename Number>
bool isNumber(const std::string& text) {
  return parseNumber<Number>(text).has_value();
}

bool isHost(const std::string& text) {
  const std::size_t colon = text.find(':');
  in_addr address;
  if (inet_pton(AF_INET, text.substr(0, colon).c_str(), &address) != 1) return false;
  return colon == std::string::npos || isNumber<uint16_t>(text.substr(colon + 1));
}

bool isKeyValue(const std::string& text) {
  const std::size_t equals = text.find('=');
  return equals != std::string::npos && equals > 0;
}

bool isUsbDevice(const std::string& text) {
  const auto bytes = fromHex(text);
  return bytes && bytes->size() == 8;
}

bool isSwitch(const std::string& text) {
  return text == "on" || text == "off" || text == "1" || text == "0";
}

bool isNotEmpty(const std::string& text) {
  return !text.empty();
}

// Words are checked against those of the argument.
bool isAnything(const std::string& /*text*/) {
  return true;
}

struct KindRow {
  ArgumentKind kind;
  const char* valueName;
  bool (*holds)(const std::string&);
  const char* expected;
  const char* sample;
};

constexpr const char* kNotEmpty = "a text of a character or more";
constexpr std::array kKinds = {
    KindRow{ArgumentKind::Text, "TEXT", isAnything, "", "text"},
    KindRow{ArgumentKind::Name, "NAME", isNotEmpty, kNotEmpty, "name"},
    KindRow{ArgumentKind::Flag, "", isAnything, "", ""},
    KindRow{ArgumentKind::UInt16, "NUMBER", isNumber<uint16_t>, "a number from 0 to 65535", "1"},
    KindRow{ArgumentKind::UInt32, "NUMBER", isNumber<uint32_t>, "a number from 0 to 4294967295",
            "1"},
    KindRow{ArgumentKind::UInt64, "NUMBER", isNumber<uint64_t>, "a number from 0 to 2^64-1", "1"},
    KindRow{ArgumentKind::Int32, "NUMBER", isNumber<int32_t>, "a number from -2^31 to 2^31-1", "1"},
    KindRow{ArgumentKind::Int64, "NUMBER", isNumber<int64_t>, "a number from -2^63 to 2^63-1", "1"},
    KindRow{ArgumentKind::Seconds, "SECONDS", isNumber<uint32_t>, "a number of seconds", "1"},
    KindRow{ArgumentKind::Word, "WORD", isNumber<uint16_t>, "a number from 0 to 65535", ""},
    KindRow{ArgumentKind::Switch, "SWITCH", isSwitch, "on or off", "on"},
    KindRow{ArgumentKind::Choice, "A,B", isAnything, "", ""},
    KindRow{ArgumentKind::Fields, "A,B", isNotEmpty, kNotEmpty, "NUMBER,NAME"},
    KindRow{ArgumentKind::VidPid, "VID:PID",
            [](const std::string& text) { return parseVidPid(text).has_value(); },
            "vendor and product as in 046d:c52b", "046d:0825"},
    KindRow{ArgumentKind::Hex, "HEX",
            [](const std::string& text) { return fromHex(text).has_value(); },
            "bytes as pairs of hexadecimal digits", "0102"},
    KindRow{ArgumentKind::UsbDevice, "HEX", isUsbDevice,
            "eight bytes as pairs of hexadecimal digits", "0102030405060708"},
    KindRow{ArgumentKind::Host, "HOST", isHost, "an address as in 10.0.0.5 or 10.0.0.5:9100",
            "10.0.0.5"},
    KindRow{ArgumentKind::Pipe, "PIPE",
            [](const std::string& text) { return parsePipe(text).has_value(); },
            "PARAM1:PARAM2:LABEL1:LABEL2 with labels of up to 127 characters", "1:2:audio:main"},
    KindRow{ArgumentKind::Desktop, "DESKTOP", isNotEmpty, kNotEmpty, "office-1"},
    KindRow{ArgumentKind::Device, "DEVICE", isNotEmpty, kNotEmpty, "3"},
    KindRow{ArgumentKind::Printer, "PRINTER", isNotEmpty, kNotEmpty, "'Desk printer'"},
    KindRow{ArgumentKind::PrinterName, "NAME", isNotEmpty, kNotEmpty, "'Desk printer'"},
    KindRow{ArgumentKind::Driver, "NAME", isAnything, "", "'Generic PostScript'"},
    KindRow{ArgumentKind::FaultMethod, "METHOD", isNotEmpty, kNotEmpty, "getVmList"},
    KindRow{ArgumentKind::FaultKind, "KIND", isNotEmpty, kNotEmpty, "error"},
    KindRow{ArgumentKind::PlugKey, "KEY=VALUE", isKeyValue, "KEY=VALUE",
            "type=camera 'name=Desk camera'"},
    KindRow{ArgumentKind::Scenario, "FILE", isAnything, "", "world.toml"},
    KindRow{ArgumentKind::Stroke, "FILE", isNotEmpty, kNotEmpty,
            "examples/strokes/signature.jsonl"},
    KindRow{ArgumentKind::File, "FILE", isNotEmpty, kNotEmpty, "token.txt"},
};

constexpr bool standInOrder() {
  for (std::size_t i = 0; i < kKinds.size(); ++i) {
    if (kKinds[i].kind != static_cast<ArgumentKind>(i)) return false;
  }
  return kKinds.size() == static_cast<std::size_t>(ArgumentKind::File) + 1;
}
static_assert(standInOrder());

const KindRow& rowOf(ArgumentKind kind) {
  return kKinds.at(static_cast<std::size_t>(kind));
}

std::string quoted(const std::string& text) {
  return "'" + text + "'";
}

std::string complaintAboutWord(Words words, const std::string& text) {
  return quoted(text) + " is not " + listed(words) + didYouMean(text, textsOf(words));
}

// Any of the words, with commas between.
std::string complaintAboutChoice(Words words, const std::string& text) {
  for (const std::string& part : splitAtCommas(text)) {
    if (!numberFor(words, part)) return complaintAboutWord(words, part);
  }
  return {};
}

}  // namespace

std::optional<VidPid> parseVidPid(std::string_view text) {
  if (text.size() != 9 || text[4] != ':') return std::nullopt;
  const auto vid = parseNumber<uint16_t>(text.substr(0, 4), 16);
  const auto pid = parseNumber<uint16_t>(text.substr(5), 16);
  if (!vid || !pid) return std::nullopt;
  return VidPid{*vid, *pid};
}

std::optional<PipeDescription> parsePipe(std::string_view text) {
  std::array<std::string_view, 4> parts;
  for (std::size_t i = 0; i < 3; ++i) {
    const std::size_t colon = text.find(':');
    if (colon == std::string_view::npos) return std::nullopt;
    parts[i] = text.substr(0, colon);
    text.remove_prefix(colon + 1);
  }
  parts[3] = text;
  const auto param1 = parseNumber<uint32_t>(parts[0]);
  const auto param2 = parseNumber<uint32_t>(parts[1]);
  const bool labelsFit = parts[2].size() <= kLabelLength && parts[3].size() <= kLabelLength;
  if (!param1 || !param2 || !labelsFit) return std::nullopt;
  return PipeDescription{*param1, *param2, std::string(parts[2]), std::string(parts[3])};
}

std::vector<std::string> splitAtCommas(std::string_view text) {
  std::vector<std::string> parts;
  while (!text.empty()) {
    const std::size_t comma = std::min(text.find(','), text.size());
    parts.emplace_back(text.substr(0, comma));
    text.remove_prefix(std::min(comma + 1, text.size()));
  }
  return parts;
}

std::string complaintAbout(const Argument& argument, const std::string& text) {
  if (argument.kind == ArgumentKind::Choice) return complaintAboutChoice(argument.words, text);
  if (numberFor(argument.words, text)) return {};
  const KindRow& row = rowOf(argument.kind);
  if (row.holds(text)) return {};
  if (!argument.words.empty()) return complaintAboutWord(argument.words, text);
  return quoted(text) + " is not " + row.expected;
}

const char* valueNameOf(const Argument& argument) {
  return rowOf(argument.kind).valueName;
}

std::string sampleOf(const Argument& argument) {
  if (argument.sample != nullptr) return argument.sample;
  return argument.words.empty() ? rowOf(argument.kind).sample : argument.words.front().word;
}

const Arguments::Values& Arguments::valuesOf(const std::string& name) const {
  const auto found = values_.find(name);
  if (found == values_.end()) throw std::logic_error("the command declares no argument " + name);
  return found->second;
}

const std::vector<std::string>& Arguments::texts(const std::string& name) const {
  return valuesOf(name).texts;
}

}  // namespace zq::ctl
