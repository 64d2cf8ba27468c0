#include "platform/text/table.h"

#include <libsmartcols.h>

#include <cstdlib>
#include <memory>
#include <new>
#include <sstream>

namespace zq {
namespace {

constexpr const char* kSeparator = "  ";

struct Unreference {
  void operator()(libscols_table* table) const { scols_unref_table(table); }
  void operator()(char* text) const { std::free(text); }
};
using Table = std::unique_ptr<libscols_table, Unreference>;

// The functions of libsmartcols fail for lack of memory alone, as they are used here.
void require(bool done) {
  if (!done) throw std::bad_alloc();
}

void addColumns(libscols_table* table, const TextTable& text) {
  for (const std::string& heading : text.headings) {
    // A heading takes its width also when it is not shown.
    const char* shown = text.showHeadings ? heading.c_str() : "";
    libscols_column* column = scols_table_new_column(table, shown, 0, SCOLS_FL_TRUNC);
    require(column != nullptr);
    if (text.colours) scols_cell_set_color(scols_column_get_header(column), "\033[1m");
  }
}

void addRow(libscols_table* table, const TextTable::Row& row) {
  libscols_line* line = scols_table_new_line(table, nullptr);
  require(line != nullptr);
  for (std::size_t i = 0; i < row.cells.size(); ++i) {
    require(scols_line_set_data(line, i, row.cells[i].c_str()) == 0);
  }
  if (row.highlighted) scols_line_set_color(line, "green");
}

// The last cell of a row is filled up with blanks too.
std::string withoutBlanksAtEnds(const std::string& text) {
  std::string lines;
  std::istringstream rows(text);
  for (std::string row; std::getline(rows, row);) {
    lines += row.substr(0, row.find_last_not_of(' ') + 1) + "\n";
  }
  return lines;
}

}  // namespace

std::string TextTable::render() const {
  if (rows.empty()) return {};
  const Table table(scols_new_table());
  require(table != nullptr);
  scols_table_enable_noencoding(table.get(), 1);  // nothing is left in it that would need that
  scols_table_enable_colors(table.get(), colours ? 1 : 0);
  scols_table_enable_noheadings(table.get(), showHeadings ? 0 : 1);
  scols_table_set_column_separator(table.get(), kSeparator);
  scols_table_set_termforce(table.get(),
                            width > 0 ? SCOLS_TERMFORCE_ALWAYS : SCOLS_TERMFORCE_NEVER);
  if (width > 0) scols_table_set_termwidth(table.get(), width);
  addColumns(table.get(), *this);
  for (const Row& row : rows) addRow(table.get(), row);
  char* printed = nullptr;
  require(scols_print_table_to_string(table.get(), &printed) == 0);
  const std::unique_ptr<char, Unreference> text(printed);
  return withoutBlanksAtEnds(text.get());
}

}  // namespace zq
