#include "tools/perixctl/outcome.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>

namespace zq {
namespace {

constexpr const char* kBold = "\033[1m";
constexpr const char* kGreen = "\033[32m";
constexpr const char* kPlain = "\033[0m";

// The length of the well-formed UTF-8 sequence at the front of `text`, 0 when there is none.
std::size_t sequenceLength(std::string_view text) {
  const auto byte = [text](std::size_t i) { return static_cast<uint8_t>(text[i]); };
  const uint8_t first = byte(0);
  const std::size_t length = first < 0x80   ? 1
                             : first < 0xc2 ? 0
                             : first < 0xe0 ? 2
                             : first < 0xf0 ? 3
                             : first < 0xf5 ? 4
                                            : 0;
  if (length > text.size()) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xc0) != 0x80) return 0;
  }
  const bool overlong = (first == 0xe0 && byte(1) < 0xa0) || (first == 0xf0 && byte(1) < 0x90);
  const bool beyond = (first == 0xed && byte(1) > 0x9f) || (first == 0xf4 && byte(1) > 0x8f);
  return overlong || beyond ? 0 : length;
}

// Also the second block of controls (U+0080 to U+009F), which some terminals obey.
bool isControl(std::string_view sequence) {
  const auto first = static_cast<uint8_t>(sequence[0]);
  return first < 0x20 || first == 0x7f ||
         (first == 0xc2 && static_cast<uint8_t>(sequence[1]) < 0xa0);
}

std::string escapedExcept(std::string_view text, char kept) {
  std::string result;
  while (!text.empty()) {
    const std::size_t length = sequenceLength(text);
    const std::string_view sequence = text.substr(0, std::max<std::size_t>(length, 1));
    if (length > 0 && (!isControl(sequence) || (kept != 0 && sequence[0] == kept))) {
      result += sequence;
    } else {
      for (const char byte : sequence) {
        char code[5];
        std::snprintf(code, sizeof(code), "\\x%02x", static_cast<uint8_t>(byte));
        result += code;
      }
    }
    text.remove_prefix(sequence.size());
  }
  return result;
}

// Columns on a terminal, near enough: one for each character.
std::size_t widthOf(std::string_view text) {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char byte) {
    return (static_cast<uint8_t>(byte) & 0xc0) != 0x80;
  }));
}

std::string cellText(const Json& value) {
  if (value.is_null()) return "-";
  if (value.is_string()) return escaped(value.get<std::string>());
  if (value.is_boolean()) return value.get<bool>() ? "yes" : "no";
  return escaped(value.dump(-1, ' ', false, Json::error_handler_t::replace));
}

std::string padded(const std::string& text, std::size_t width) {
  return text + std::string(width - std::min(width, widthOf(text)), ' ');
}

std::string painted(const std::string& text, const char* paint, bool colour) {
  return colour ? paint + text + kPlain : text;
}

using Cells = std::vector<std::string>;

std::string renderRow(const Cells& cells, const std::vector<std::size_t>& widths) {
  std::string line;
  for (std::size_t i = 0; i < cells.size(); ++i) {
    line += i + 1 < cells.size() ? padded(cells[i], widths[i]) + "  " : cells[i];
  }
  return line;
}

std::string renderTable(const Json& rows, const std::vector<Column>& columns, bool colour) {
  std::vector<Cells> lines(1);
  for (const Column& column : columns) lines[0].push_back(column.title);
  for (const Json& row : rows) {
    Cells& cells = lines.emplace_back();
    for (const Column& column : columns) cells.push_back(cellText(row.value(column.key, Json())));
  }
  std::vector<std::size_t> widths(columns.size(), 0);
  for (const Cells& cells : lines) {
    for (std::size_t i = 0; i < cells.size(); ++i) {
      widths[i] = std::max(widths[i], widthOf(cells[i]));
    }
  }
  std::string text = painted(renderRow(lines[0], widths), kBold, colour) + "\n";
  for (std::size_t i = 1; i < lines.size(); ++i) {
    const bool live = rows[i - 1].value("connected", false);
    text += painted(renderRow(lines[i], widths), kGreen, colour && live) + "\n";
  }
  return text;
}

std::string renderFacts(const Json& object) {
  std::size_t width = 0;
  for (const auto& [key, value] : object.items()) width = std::max(width, widthOf(key));
  std::string text;
  for (const auto& [key, value] : object.items()) {
    text += padded(key, width) + "  " + cellText(value) + "\n";
  }
  return text;
}

}  // namespace

Outcome tableOf(Json rows, std::vector<Column> columns) {
  return {.document = std::move(rows), .columns = std::move(columns)};
}

Outcome factsOf(Json object) {
  std::string text = renderFacts(object);
  return {.document = std::move(object), .text = std::move(text)};
}

Outcome textOf(const std::string& text) {
  std::string lines = escapedLines(text);
  if (!lines.ends_with('\n')) lines += '\n';
  return {.document = {{"text", text}}, .text = std::move(lines)};
}

Outcome documentOf(Json document) {
  std::string text = document.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
  return {.document = std::move(document), .text = escapedLines(text)};
}

std::string renderJson(const Json& document) {
  return document.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string renderText(const Outcome& outcome, bool colour) {
  if (outcome.columns.empty()) return outcome.text;
  if (outcome.document.empty()) return "none\n";
  return renderTable(outcome.document, outcome.columns, colour);
}

std::string escaped(std::string_view text) {
  return escapedExcept(text, 0);
}

std::string escapedLines(std::string_view text) {
  return escapedExcept(text, '\n');
}

}  // namespace zq
