// Tables for people.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace zq {

/// A table whose columns line up for every script: wide characters of East Asia take two columns,
/// combining ones take none.
class TextTable {
 public:
  struct Row {
    std::vector<std::string> cells;  ///< UTF-8 without control characters, one for each column
    bool highlighted = false;        ///< green, where there are colours
  };

  std::vector<std::string> headings;  ///< one for each column; in bold where there are colours
  bool showHeadings = true;
  bool colours = false;
  /// Rows are cut to this many columns of a terminal; 0 does not cut.
  std::size_t width = 0;
  std::vector<Row> rows;

  /// The table in lines, each with its end; empty without rows. Throws std::bad_alloc. The
  /// character set must be UTF-8 (setlocale): the widths are those of the C library.
  std::string render() const;
};

}  // namespace zq
