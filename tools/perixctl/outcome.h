// What a command yields: one document for programs, and the same as text for people.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace zq::ctl {

/// Objects keep the order in which their members were added.
using Json = nlohmann::ordered_json;

struct Column {
  std::string key;    ///< the member of each row
  std::string title;  ///< what stands above it
};

struct Outcome {
  Json document;
  /// How people read it: as a table of these columns when the document is an array, ...
  std::vector<Column> columns;
  /// ... else this text, ...
  std::string text;
  /// ... and neither when the command has already written what there is.
  bool written = false;
  int exitCode = 0;  ///< of a program that the command ran
};

/// An array of objects, shown as a table.
Outcome tableOf(Json rows, std::vector<Column> columns);
/// One object, shown as lines of member and value.
Outcome factsOf(Json object);
/// A text of the service's: itself for people, {"text": ...} for programs.
Outcome textOf(const std::string& text);
/// A document in the service's own format, indented for people.
Outcome documentOf(Json document);

/// The outcome as it is written: `--json` one line, else text in lines.
std::string renderJson(const Json& document);
std::string renderText(const Outcome& outcome, bool colour);

}  // namespace zq::ctl
