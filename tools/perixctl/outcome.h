// The result of a command: one document for programs, and the same as text for people.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace zq::ctl {

/// Objects keep the order in which their members were added.
using Json = nlohmann::ordered_json;

struct Column {
  std::string key;    ///< the member of each row
  std::string title;  ///< the heading
};

struct Outcome {
  Json document;
  /// People read it as a table of these columns when the document is an array, ...
  std::vector<Column> columns;
  /// ... else as this text, ...
  std::string text;
  /// ... and not at all when the command has already written everything.
  bool written = false;
  /// It only tells that the operation was done, so that --quiet leaves it out.
  bool confirmation = false;
  int exitCode = 0;  ///< of a program that the command ran
};

/// The document in a text of the service's. It is discarded when the text is not JSON, and when its
/// values are nested more than 64 deep: copying or writing it takes stack for each level.
Json parsedText(const std::string& text);

/// An array of objects, shown as a table.
Outcome tableOf(Json rows, std::vector<Column> columns);
/// One object, shown as lines of member and value.
Outcome factsOf(Json object);
/// An object, shown as a sentence.
Outcome sentenceOf(Json object, const std::string& sentence);
/// The operation was done.
Outcome doneOf(Json document, const std::string& text);
/// A text of the service's: itself for people, {"text": ...} for programs.
Outcome textOf(const std::string& text);
/// A document in the service's own format, indented for people.
Outcome documentOf(Json document);

/// The form of tables for people.
struct TableStyle {
  bool colours = false;
  bool headings = true;
  std::size_t width = 0;            ///< of the terminal; 0 does not cut
  std::vector<std::string> fields;  ///< members or headings to show; empty for the usual ones
};

/// The outcome as it is written: `--json` one line, else text in lines. Throws CommandError (Usage)
/// for a field that the rows lack.
std::string renderJson(const Json& document);
std::string renderText(const Outcome& outcome, const TableStyle& style);

/// Adds to every object with a 64-bit id the id as a text: programs that keep numbers as floating
/// point would change it.
Json withIdTexts(Json document);

}  // namespace zq::ctl
