// Reads TOML tables strictly: every mistake is noted with its place, and reading goes on.
#pragma once

#include <toml++/toml.h>

#include <algorithm>
#include <concepts>
#include <limits>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "service/scenario/fields.h"

namespace zq::devservice {

/// The mistakes in a document, and the values that no other field may have.
class TomlDocument {
 public:
  explicit TomlDocument(std::string source) : source_(std::move(source)) {}

  void note(const toml::source_position& place, std::string_view message);
  /// False when a field of that name space has the value already.
  bool claim(std::string_view nameSpace, const std::string& value);
  /// Each mistake as "source:line:column: message", in the order of their places.
  std::vector<std::string> mistakes() const;

 private:
  std::string source_;
  std::multimap<std::pair<uint32_t, uint32_t>, std::string> mistakes_;  ///< by line and column
  std::set<std::pair<std::string, std::string>> taken_;
};

/// One table. field() changes its output only when the key is there and its value fits, and returns
/// whether it did. finish() notes the keys that were not read.
class TableReader {
 public:
  template <typename Record>
  using Of = Record;

  TableReader(const toml::table& table, TomlDocument& document)
      : table_(table), document_(document) {}

  template <typename Value>
  bool field(std::string_view key, Value& out, const Rule& rule = {}) {
    const toml::node* node = take(key);
    if (node == nullptr && rule.required) complain(key, std::string(key) + " is missing");
    return node != nullptr && read(key, *node, out, rule);
  }
  template <typename Value>
  void shown(std::string_view /*key*/, const Value& /*value*/) {}

  /// Reads the section [key], if there is one.
  template <typename Read>
  void table(std::string_view key, const Read& readTable) {
    forEach(tables(key, false), readTable);
  }
  template <typename Record, typename Read>
  void table(std::string_view key, Record& record, const Read& readRecord) {
    table(key, [&](TableReader& table) { readRecord(table, record); });
  }
  /// Reads the sections [[key]].
  template <typename Read>
  void list(std::string_view key, const Read& readTable) {
    forEach(tables(key, true), readTable);
  }
  /// Reads the sections [[key]] into records of the list.
  template <typename Record, typename Read>
  void list(std::string_view key, std::vector<Record>& records, const Read& readRecord) {
    list(key, [&](TableReader& table) { readRecord(table, records.emplace_back()); });
  }
  /// Reads the sections [[key]] with a vendor and a product each.
  template <typename Value, typename Read>
  void byVidPid(std::string_view key, std::map<VidPid, Value>& values, const Read& readValue) {
    list(key, [&](TableReader& table) {
      VidPid id;
      fields(table, id, kRequired);
      table.requireUniqueId(key, id);
      readValue(table, values[id]);
    });
  }

  /// Notes a mistake when a field of the name space has the value already.
  void requireUnique(std::string_view key, std::string_view nameSpace, const std::string& value);
  /// The same for the vendor and the product of the table.
  void requireUniqueId(std::string_view nameSpace, const VidPid& id);
  /// Notes a mistake at the value of `key`, or at the table when it has no such key.
  void complain(std::string_view key, std::string_view message);
  void finish();

 private:
  const toml::node* take(std::string_view key);
  std::vector<const toml::table*> tables(std::string_view key, bool isList);

  template <typename Read>
  void forEach(const std::vector<const toml::table*>& tables, const Read& readTable) {
    for (const toml::table* table : tables) {
      TableReader reader(*table, document_);
      readTable(reader);
      reader.finish();
    }
  }

  /// Notes the key and the message at the node. False.
  bool refuse(std::string_view key, const toml::node& node, std::string_view message);

  bool read(std::string_view key, const toml::node& node, bool& out, const Rule& rule);
  bool read(std::string_view key, const toml::node& node, std::string& out, const Rule& rule);
  bool readNumber(std::string_view key, const toml::node& node, int64_t& out, const Rule& rule);

  template <std::integral Integer>
  bool read(std::string_view key, const toml::node& node, Integer& out, Rule rule) {
    using Limits = std::numeric_limits<Integer>;
    if (!rule.least) rule.least = Limits::min();
    if (!rule.most) rule.most = std::min<uint64_t>(Limits::max(), INT64_MAX);
    int64_t number = 0;
    const bool fits = readNumber(key, node, number, rule);
    if (fits) out = static_cast<Integer>(number);
    return fits;
  }

  /// TOML's integers end at 2^63-1; larger numbers are texts of decimal digits.
  bool read(std::string_view key, const toml::node& node, uint64_t& out, const Rule& rule);

  template <typename Enum>
  requires std::is_enum_v<Enum>
  bool read(std::string_view key, const toml::node& node, Enum& out, const Rule& /*rule*/) {
    std::string valid;
    // The enumerations of the model number on from 0 or 1.
    int number = TextOf(Enum{}) == nullptr ? 1 : 0;
    for (const char* word; (word = TextOf(static_cast<Enum>(number))) != nullptr; ++number) {
      if (node.value_or(std::string_view()) == word) {
        out = static_cast<Enum>(number);
        return true;
      }
      valid.append(valid.empty() ? " is one of: " : ", ").append(word);
    }
    return refuse(key, node, valid);
  }

  template <typename Record>
  requires std::is_class_v<Record>
  bool read(std::string_view key, const toml::node& node, Record& out, const Rule& /*rule*/) {
    if (!node.is_table()) return refuse(key, node, " is a list of tables");
    forEach({node.as_table()}, [&out](TableReader& reader) { fields(reader, out); });
    return true;
  }

  template <typename Value>
  bool read(std::string_view key, const toml::node& node, std::vector<Value>& out,
            const Rule& rule) {
    if (!node.is_array()) return refuse(key, node, " has the wrong type; it is a list");
    for (const toml::node& element : *node.as_array()) {
      Value value{};
      if (read(key, element, value, rule)) out.push_back(std::move(value));
    }
    return true;
  }

  const toml::table& table_;
  TomlDocument& document_;
  std::set<std::string_view> known_;
};

}  // namespace zq::devservice
