#include "tools/perixctl/argument.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <stdexcept>

#include "platform/text/hex.h"

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

struct KindRule {
  ArgumentKind kind;
  bool (*holds)(const std::string&);
  const char* expected;
};

const std::array kRules = {
    KindRule{ArgumentKind::Name, [](const std::string& text) { return !text.empty(); },
             "a text that is not empty"},
    KindRule{ArgumentKind::UInt16, isNumber<uint16_t>, "a number from 0 to 65535"},
    KindRule{ArgumentKind::UInt32, isNumber<uint32_t>, "a number from 0 to 4294967295"},
    KindRule{ArgumentKind::UInt64, isNumber<uint64_t>, "a number from 0 to 2^64-1"},
    KindRule{ArgumentKind::Int32, isNumber<int32_t>, "a number from -2^31 to 2^31-1"},
    KindRule{ArgumentKind::Int64, isNumber<int64_t>, "a number from -2^63 to 2^63-1"},
    KindRule{ArgumentKind::Switch,
             [](const std::string& text) { return text == "on" || text == "off"; }, "on or off"},
    KindRule{ArgumentKind::VidPid,
             [](const std::string& text) { return parseVidPid(text).has_value(); },
             "vendor and product as in 046d:c52b"},
    KindRule{ArgumentKind::Hex, [](const std::string& text) { return fromHex(text).has_value(); },
             "bytes as pairs of hexadecimal digits"},
    KindRule{ArgumentKind::UsbDevice, isUsbDevice, "eight bytes as pairs of hexadecimal digits"},
    KindRule{ArgumentKind::Host, isHost, "an address as in 10.0.0.5 or 10.0.0.5:9100"},
    KindRule{ArgumentKind::KeyValue, isKeyValue, "KEY=VALUE"},
    KindRule{ArgumentKind::Pipe,
             [](const std::string& text) { return parsePipe(text).has_value(); },
             "PARAM1:PARAM2:LABEL1:LABEL2 with labels of up to 127 characters"},
};

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

std::string complaintAbout(ArgumentKind kind, const std::string& text) {
  const auto rule = std::find_if(kRules.begin(), kRules.end(),
                                 [kind](const KindRule& row) { return row.kind == kind; });
  if (rule == kRules.end() || rule->holds(text)) return {};
  return "'" + text + "' is not " + rule->expected;
}

const std::vector<std::string>& Arguments::texts(const std::string& name) const {
  const auto found = values_.find(name);
  if (found == values_.end()) throw std::logic_error("the command declares no argument " + name);
  return found->second;
}

}  // namespace zq::ctl
