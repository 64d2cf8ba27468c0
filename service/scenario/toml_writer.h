// Writes tables of TOML that TableReader reads.
#pragma once

#include <algorithm>
#include <concepts>
#include <cstdint>
#include <map>
#include <string>
#include <type_traits>
#include <vector>

#include "service/scenario/fields.h"

namespace zq::devservice {

/// One table. Texts must be UTF-8.
class TableWriter {
 public:
  template <typename Record>
  using Of = const Record;

  template <typename Value>
  void field(const char* key, const Value& value, const Rule& rule = {}) {
    lines_.push_back({std::string(key) + " = " + textOf(value, rule), rule.required});
  }
  template <typename Value>
  void shown(const char* /*key*/, const Value& /*value*/) {}

  /// A line for each field, but for the fields that are not required and have the value that they
  /// have in `defaults`.
  std::string lines(const TableWriter& defaults) const;

 private:
  struct Line {
    std::string text;
    bool required;
    bool operator==(const Line&) const = default;
  };

  static std::string textOf(bool value, const Rule& rule);
  static std::string textOf(const std::string& text, const Rule& rule);
  static std::string textOf(uint64_t number, const Rule& rule);
  template <std::integral Integer>
  static std::string textOf(Integer number, const Rule& rule) {
    return rule.hex ? inHex(static_cast<uint64_t>(number)) : std::to_string(number);
  }
  static std::string inHex(uint64_t number);
  template <typename Enum>
  requires std::is_enum_v<Enum>
  static std::string textOf(Enum value, const Rule& rule) {
    return textOf(std::string(TextOf(value)), rule);
  }
  template <typename Value>
  static std::string textOf(const std::vector<Value>& values, const Rule& rule) {
    std::string list;
    for (const Value& value : values) list += (list.empty() ? "" : ", ") + textOf(value, rule);
    return '[' + list + ']';
  }
  template <typename Record>
  requires std::is_class_v<Record>
  static std::string textOf(const Record& record, const Rule& /*rule*/) {
    TableWriter writer;
    fields(writer, record);
    return writer.inlineTable();
  }
  std::string inlineTable() const;

  std::vector<Line> lines_;
};

/// A document: the sections that TableReader reads with the functions of the same names.
class TomlWriter {
 public:
  template <typename Record>
  using Of = const Record;

  /// The section [key] with all its fields.
  template <typename Write>
  void table(const char* key, const Write& writeTable) {
    TableWriter table;
    writeTable(table);
    section('[' + std::string(key) + ']', table, {});
  }
  /// The section [key] without the fields that have the values of a new record; none without any.
  template <typename Record, typename Write>
  void table(const char* key, const Record& record, const Write& writeRecord) {
    const Record defaults{};
    TableWriter plain;
    writeRecord(plain, defaults);
    TableWriter table;
    writeRecord(table, record);
    if (!table.lines(plain).empty()) section('[' + std::string(key) + ']', table, plain);
  }
  /// A section [[key]] for each record, without the fields that have the values of `defaults`.
  template <typename Record, typename Write>
  void list(const char* key, const std::vector<Record>& records, const Write& writeRecord,
            const Record& defaults = {}) {
    TableWriter plain;
    writeRecord(plain, defaults);
    for (const Record& record : records) {
      TableWriter table;
      writeRecord(table, record);
      section("[[" + std::string(key) + "]]", table, plain);
    }
  }
  template <typename Value, typename Write>
  void byVidPid(const char* key, const std::map<VidPid, Value>& values, const Write& writeValue) {
    TableWriter plain;
    const Value defaults{};
    writeValue(plain, defaults);
    for (const auto& [id, value] : values) {
      TableWriter table;
      fields(table, id, kRequired);
      writeValue(table, value);
      section("[[" + std::string(key) + "]]", table, plain);
    }
  }

  const std::string& text() const { return text_; }

 private:
  void section(const std::string& heading, const TableWriter& table, const TableWriter& defaults);

  std::string text_;
};

}  // namespace zq::devservice
