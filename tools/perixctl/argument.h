// Arguments of commands: the values that they may have, and their values once parsed.
#pragma once

#include <charconv>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/perixctl/words.h"

namespace zq::ctl {

/// The form of a value. Numbers are decimal, or hexadecimal behind 0x.
enum class ArgumentKind {
  Text,  ///< anything
  Name,  ///< anything that is not empty
  Flag,  ///< an option without a value
  UInt16,
  UInt32,
  UInt64,
  Int32,
  Int64,
  Seconds,      ///< whole ones
  Word,         ///< one of the argument's words, or a number from 0 to 65535
  Switch,       ///< on or off, or 1 or 0
  Choice,       ///< some of the argument's words, with commas between
  Fields,       ///< columns of a table, with commas between
  VidPid,       ///< USB vendor and product: four hexadecimal digits each, with a colon between
  Hex,          ///< bytes, two hexadecimal digits each
  UsbDevice,    ///< exactly eight of these bytes
  Host,         ///< an IPv4 address, with :port if wanted
  Pipe,         ///< PARAM1:PARAM2:LABEL1:LABEL2
  Desktop,      ///< a desktop's id
  Device,       ///< a device's number, source id or name
  Printer,      ///< a printer's number or name
  PrinterName,  ///< the name of a printer
  Driver,       ///< the name of a printer's driver
  FaultMethod,  ///< a bus method, or *
  FaultKind,    ///< a kind of fault
  PlugKey,      ///< KEY=VALUE
  Scenario,     ///< a scenario's file; as an option, its value stands behind '=' and may be absent
  Stroke,       ///< the file of a recorded stroke
  File,         ///< any other file
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
  Words words = {};              ///< of the kinds Word and Choice
  const char* sample = nullptr;  ///< a value for the example in the help; else that of the kind

  bool isOption() const { return name.starts_with("--"); }
  bool takesValue() const { return kind != ArgumentKind::Flag; }
  bool isRequired() const {
    return presence == Presence::Required || presence == Presence::Repeated;
  }
};

struct VidPid {
  uint16_t vid = 0;
  uint16_t pid = 0;
};

/// Nothing when the text is not a number or does not fit.
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

/// The parts of a text between its commas.
std::vector<std::string> splitAtCommas(std::string_view text);

/// The mistake of `text` as a value of the argument, in words; empty when it has none.
std::string complaintAbout(const Argument& argument, const std::string& text);

/// The name of an option's value in help texts: "FILE".
const char* valueNameOf(const Argument& argument);

/// A value that the argument may have, for examples.
std::string sampleOf(const Argument& argument);

/// The values of a command line by the names of the command's arguments, checked against their
/// kinds.
class Arguments {
 public:
  struct Values {
    std::vector<std::string> texts;
    Words words;
  };

  Arguments() = default;
  /// The argument exists, without a value so far.
  void declare(const Argument& argument) { values_[argument.name].words = argument.words; }
  void add(const std::string& name, std::string text) {
    values_.at(name).texts.push_back(std::move(text));
  }

  bool has(const std::string& name) const { return !texts(name).empty(); }
  /// The value, or an empty text.
  std::string text(const std::string& name) const { return has(name) ? texts(name)[0] : ""; }
  /// Throws std::logic_error when the command declares no argument of that name; so do the others.
  const std::vector<std::string>& texts(const std::string& name) const;
  /// The number, or the number of the word.
  template <typename Number>
  Number number(const std::string& name, Number otherwise = 0) const {
    const std::string value = text(name);
    if (const auto number = parseNumber<Number>(value)) return *number;
    const auto ofWord = numberFor(valuesOf(name).words, value);
    return ofWord ? static_cast<Number>(*ofWord) : otherwise;
  }
  bool isOn(const std::string& name) const { return text(name) == "on" || text(name) == "1"; }
  VidPid vidPid(const std::string& name) const {
    return parseVidPid(text(name)).value_or(VidPid{});
  }

 private:
  const Values& valuesOf(const std::string& name) const;

  std::map<std::string, Values> values_;
};

}  // namespace zq::ctl
