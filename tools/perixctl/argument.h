// Arguments of commands: what they may be, and their values once parsed.
#pragma once

#include <charconv>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zq::ctl {

/// What a value must look like. Numbers are decimal, or hexadecimal behind 0x.
enum class ArgumentKind {
  Text,  ///< anything
  Name,  ///< anything but nothing
  Flag,  ///< an option without a value
  UInt16,
  UInt32,
  UInt64,
  Int32,
  Int64,
  Switch,     ///< on or off
  VidPid,     ///< USB vendor and product: four hexadecimal digits each, with a colon between
  Hex,        ///< bytes, two hexadecimal digits each
  UsbDevice,  ///< exactly eight of these bytes
  Host,       ///< an IPv4 address, with :port if wanted
  KeyValue,   ///< KEY=VALUE
  Pipe,       ///< PARAM1:PARAM2:LABEL1:LABEL2
};

enum class Presence {
  Required,
  Optional,
  OneOf,     ///< exactly one of the command's arguments of this presence is given
  Repeated,  ///< once or more often; the last positional
};

/// One argument: an option when its name begins with two dashes, else positional.
struct Argument {
  std::string name;
  ArgumentKind kind = ArgumentKind::Text;
  std::string help;
  Presence presence = Presence::Required;

  bool isOption() const { return name.starts_with("--"); }
};

struct VidPid {
  uint16_t vid = 0;
  uint16_t pid = 0;
};

/// Nothing when the text is no number or does not fit.
template <typename Number>
std::optional<Number> parseNumber(std::string_view text, int base = 10) {
  if (text.starts_with("0x")) {
    text.remove_prefix(2);
    base = 16;
  }
  Number value{};
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value, base);
  if (error != std::errc{} || stop != end) return std::nullopt;
  return value;
}

std::optional<VidPid> parseVidPid(std::string_view text);

struct PipeDescription {
  uint32_t param1 = 0;
  uint32_t param2 = 0;
  std::string label1;
  std::string label2;
};
std::optional<PipeDescription> parsePipe(std::string_view text);

/// What is wrong with `text` as a value of `kind`, in words; empty when nothing is.
std::string complaintAbout(ArgumentKind kind, const std::string& text);

/// The values of a command line by the names of the command's arguments, checked against their
/// kinds.
class Arguments {
 public:
  using Values = std::map<std::string, std::vector<std::string>>;

  Arguments() = default;
  explicit Arguments(Values values) : values_(std::move(values)) {}

  bool has(const std::string& name) const { return !texts(name).empty(); }
  /// The value, or an empty text.
  std::string text(const std::string& name) const { return has(name) ? texts(name)[0] : ""; }
  /// Throws std::logic_error when the command declares no argument of that name; so do the others.
  const std::vector<std::string>& texts(const std::string& name) const;
  template <typename Number>
  Number number(const std::string& name, Number otherwise = 0) const {
    return parseNumber<Number>(text(name)).value_or(otherwise);
  }
  bool isOn(const std::string& name) const { return text(name) == "on"; }
  VidPid vidPid(const std::string& name) const {
    return parseVidPid(text(name)).value_or(VidPid{});
  }

 private:
  Values values_;
};

}  // namespace zq::ctl
