#include "tools/perixctl/outcome.h"

#include <strings.h>

#include <algorithm>

#include "platform/text/escape.h"
#include "platform/text/table.h"
#include "tools/perixctl/command_error.h"

namespace zq::ctl {
namespace {

std::string dumped(const Json& value, int indent = -1) {
  return value.dump(indent, ' ', false, Json::error_handler_t::replace);
}

std::string cellText(const Json& value) {
  if (value.is_null()) return "-";
  if (value.is_string()) return escaped(value.get<std::string>());
  if (value.is_boolean()) return value.get<bool>() ? "yes" : "no";
  if (!value.is_array()) return escaped(dumped(value));
  std::string list;
  for (const Json& element : value) list += (list.empty() ? "" : ", ") + cellText(element);
  return list.empty() ? "-" : list;
}

// The column that a user calls so: by its heading, by its member, or by a member without a column.
Column columnCalled(const std::string& name, const Outcome& outcome) {
  std::string known;
  for (const Column& column : outcome.columns) {
    if (strcasecmp(column.title.c_str(), name.c_str()) == 0 || column.key == name) return column;
    known += (known.empty() ? "" : ", ") + column.title;
  }
  const Json first = outcome.document.empty() ? Json::object() : outcome.document.front();
  for (const auto& [key, value] : first.items()) {
    if (key == name) return {key, key};
    known += ", " + key;
  }
  throw CommandError(ExitCode::Usage, "no field '" + name + "'; there are: " + known);
}

std::vector<Column> columnsOf(const Outcome& outcome, const std::vector<std::string>& fields) {
  if (fields.empty()) return outcome.columns;
  std::vector<Column> columns;
  for (const std::string& field : fields) columns.push_back(columnCalled(field, outcome));
  return columns;
}

std::string renderTable(const Outcome& outcome, const TableStyle& style) {
  TextTable table;
  table.colours = style.colours;
  table.showHeadings = style.headings;
  table.width = style.width;
  const std::vector<Column> columns = columnsOf(outcome, style.fields);
  for (const Column& column : columns) table.headings.push_back(column.title);
  for (const Json& row : outcome.document) {
    TextTable::Row& line = table.rows.emplace_back();
    for (const Column& column : columns) {
      line.cells.push_back(cellText(row.value(column.key, Json())));
    }
    line.highlighted = row.value("connected", Json()) == Json(true);
  }
  return table.render();
}

}  // namespace

Json parsedText(const std::string& text) {
  constexpr int kDeepest = 64;
  bool tooDeep = false;
  const auto look = [&tooDeep](int depth, Json::parse_event_t /*event*/, Json& /*value*/) {
    tooDeep = tooDeep || depth > kDeepest;
    return !tooDeep;
  };
  Json document = Json::parse(text, look, false);
  return tooDeep ? Json(Json::value_t::discarded) : document;
}

Outcome tableOf(Json rows, std::vector<Column> columns) {
  return {.document = std::move(rows), .columns = std::move(columns)};
}

Outcome factsOf(Json object) {
  TextTable table{.headings = {"", ""}, .showHeadings = false};
  for (const auto& [key, value] : object.items()) table.rows.push_back({{key, cellText(value)}});
  return {.document = std::move(object), .text = table.render()};
}

Outcome sentenceOf(Json object, const std::string& sentence) {
  return {.document = std::move(object), .text = sentence + "\n"};
}

Outcome doneOf(Json document, const std::string& text) {
  return {.document = std::move(document), .text = text + "\n", .confirmation = true};
}

Outcome textOf(const std::string& text) {
  std::string lines = escapedLines(text);
  if (!lines.ends_with('\n')) lines += '\n';
  return {.document = {{"text", text}}, .text = std::move(lines)};
}

Outcome documentOf(Json document) {
  std::string text = dumped(document, 2) + "\n";
  return {.document = std::move(document), .text = escapedLines(text)};
}

std::string renderJson(const Json& document) {
  return dumped(document) + "\n";
}

std::string renderText(const Outcome& outcome, const TableStyle& style) {
  if (outcome.columns.empty()) return outcome.text;
  if (outcome.document.empty()) return style.headings ? "none\n" : "";
  return renderTable(outcome, style);
}

Json withIdTexts(Json document) {
  if (!document.is_structured()) return document;
  Json texts = Json::object();
  for (auto& [key, value] : document.items()) {
    if (key == "sourceId" && value.is_number_integer()) texts["sourceIdText"] = value.dump();
    value = withIdTexts(std::move(value));
  }
  if (document.is_object()) document.update(texts);
  return document;
}

}  // namespace zq::ctl
