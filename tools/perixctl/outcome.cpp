#include "tools/perixctl/outcome.h"

#include "platform/text/escape.h"
#include "platform/text/table.h"

namespace zq::ctl {
namespace {

std::string cellText(const Json& value) {
  if (value.is_null()) return "-";
  if (value.is_string()) return escaped(value.get<std::string>());
  if (value.is_boolean()) return value.get<bool>() ? "yes" : "no";
  return escaped(value.dump(-1, ' ', false, Json::error_handler_t::replace));
}

std::string renderTable(const Json& rows, const std::vector<Column>& columns, bool colour) {
  TextTable table;
  table.colours = colour;
  for (const Column& column : columns) table.headings.push_back(column.title);
  for (const Json& row : rows) {
    TextTable::Row& line = table.rows.emplace_back();
    for (const Column& column : columns) {
      line.cells.push_back(cellText(row.value(column.key, Json())));
    }
    line.highlighted = row.value("connected", false);
  }
  return table.render();
}

std::string renderFacts(const Json& object) {
  TextTable table{.headings = {"", ""}, .showHeadings = false};
  for (const auto& [key, value] : object.items()) table.rows.push_back({{key, cellText(value)}});
  return table.render();
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

}  // namespace zq::ctl
