#include "service/scenario/toml_writer.h"

#include <toml++/toml.h>

#include <array>
#include <cstdio>
#include <sstream>

namespace zq::devservice {

std::string TableWriter::lines(const TableWriter& defaults) const {
  std::string text;
  for (const Line& line : lines_) {
    const auto& known = defaults.lines_;
    if (!line.required && std::find(known.begin(), known.end(), line) != known.end()) continue;
    text += line.text + '\n';
  }
  return text;
}

std::string TableWriter::inlineTable() const {
  std::string text;
  for (const Line& line : lines_) text += (text.empty() ? "" : ", ") + line.text;
  return '{' + text + '}';
}

std::string TableWriter::textOf(bool value, const Rule& /*rule*/) {
  return value ? "true" : "false";
}

std::string TableWriter::textOf(const std::string& text, const Rule& /*rule*/) {
  std::ostringstream quoted;
  const toml::value<std::string> value(text);
  quoted << toml::toml_formatter(value, toml::format_flags::allow_unicode_strings);
  return quoted.str();
}

/// TOML's integers end at 2^63-1.
std::string TableWriter::textOf(uint64_t number, const Rule& rule) {
  const std::string digits = std::to_string(number);
  return number > INT64_MAX ? textOf(digits, rule) : digits;
}

std::string TableWriter::inHex(uint64_t number) {
  std::array<char, 24> text{};
  std::snprintf(text.data(), text.size(), "0x%04llx", static_cast<unsigned long long>(number));
  return text.data();
}

void TomlWriter::section(const std::string& heading, const TableWriter& table,
                         const TableWriter& defaults) {
  text_ += (text_.empty() ? "" : "\n") + heading + '\n' + table.lines(defaults);
}

}  // namespace zq::devservice
