#include "service/scenario/toml_reader.h"

#include <algorithm>
#include <charconv>

namespace zq::devservice {

void TomlDocument::note(const toml::source_position& place, std::string_view message) {
  mistakes_.emplace(std::pair(place.line, place.column), message);
}

bool TomlDocument::claim(std::string_view nameSpace, const std::string& value) {
  return taken_.emplace(nameSpace, value).second;
}

std::vector<std::string> TomlDocument::mistakes() const {
  std::vector<std::string> lines;
  for (const auto& [place, message] : mistakes_) {
    const auto [line, column] = place;
    lines.push_back(source_ + ":" + std::to_string(line) + ":" + std::to_string(column) + ": " +
                    message);
  }
  return lines;
}

const toml::node* TableReader::take(std::string_view key) {
  known_.insert(key);
  return table_.get(key);
}

bool TableReader::refuse(std::string_view key, const toml::node& node, std::string_view message) {
  document_.note(node.source().begin, std::string(key).append(message));
  return false;
}

void TableReader::requireUnique(std::string_view key, std::string_view nameSpace,
                                const std::string& value) {
  if (document_.claim(nameSpace, value)) return;
  complain(key, "duplicate " + std::string(key) + ": another table has it already");
}

void TableReader::requireUniqueId(std::string_view nameSpace, const VidPid& id) {
  const std::string text = std::to_string(id.vid) + ":" + std::to_string(id.pid);
  if (document_.claim(nameSpace, text)) return;
  complain("vid", "duplicate vid and pid: another table has them already");
}

bool TableReader::read(std::string_view key, const toml::node& node, bool& out,
                       const Rule& /*rule*/) {
  if (!node.is_boolean()) return refuse(key, node, " has the wrong type; it is true or false");
  out = node.as_boolean()->get();
  return true;
}

bool TableReader::read(std::string_view key, const toml::node& node, std::string& out,
                       const Rule& rule) {
  if (!node.is_string()) return refuse(key, node, " has the wrong type; it is a text");
  const std::string& text = node.as_string()->get();
  if (rule.most && text.size() > static_cast<uint64_t>(*rule.most)) {
    return refuse(key, node, " has more than " + std::to_string(*rule.most) + " bytes");
  }
  if (rule.required && text.empty()) return refuse(key, node, " is empty");
  if (rule.unique != nullptr) requireUnique(key, rule.unique, text);
  out = text;
  return true;
}

bool TableReader::readNumber(std::string_view key, const toml::node& node, int64_t& out,
                             const Rule& rule) {
  if (!node.is_integer()) return refuse(key, node, " has the wrong type; it is a whole number");
  out = node.as_integer()->get();
  if (out < *rule.least || out > *rule.most) {
    return refuse(key, node,
                  " is out of range; it goes from " + std::to_string(*rule.least) + " to " +
                      std::to_string(*rule.most));
  }
  if (rule.unique != nullptr) requireUnique(key, rule.unique, std::to_string(out));
  return true;
}

bool TableReader::read(std::string_view key, const toml::node& node, uint64_t& out,
                       const Rule& rule) {
  uint64_t number = 0;
  if (node.is_string()) {
    const std::string& digits = node.as_string()->get();
    const char* const end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, number);
    if (stop != end || digits.empty()) return refuse(key, node, " is a text of other than digits");
    if (error != std::errc{}) number = 0;
  } else if (!node.is_integer()) {
    return refuse(key, node, " has the wrong type; it is a whole number or a text of digits");
  } else {
    number = static_cast<uint64_t>(std::max<int64_t>(node.value_or<int64_t>(0), 0));
  }
  const auto least = static_cast<uint64_t>(rule.least.value_or(0));
  if (number < least) {
    return refuse(key, node,
                  " is out of range; it goes from " + std::to_string(least) +
                      " to 2^64-1, beyond 2^63-1 as a text");
  }
  out = number;
  return true;
}

std::vector<const toml::table*> TableReader::tables(std::string_view key, bool isList) {
  const toml::node* node = take(key);
  if (node == nullptr) return {};
  if (!isList && node->is_table()) return {node->as_table()};
  if (isList && node->is_table()) {
    refuse(key, *node, " must be a list of tables: [[" + std::string(key) + "]]");
  } else if (!isList || !node->is_array()) {
    refuse(key, *node, std::string(" has the wrong type; it is a ") + (isList ? "list" : "table"));
  } else {
    std::vector<const toml::table*> tables;
    for (const toml::node& element : *node->as_array()) {
      if (!element.is_table()) refuse(key, element, " is a list of tables");
      if (element.is_table()) tables.push_back(element.as_table());
    }
    return tables;
  }
  return {};
}

void TableReader::complain(std::string_view key, std::string_view message) {
  const toml::node* node = table_.get(key);
  document_.note((node == nullptr ? table_.source() : node->source()).begin, message);
}

void TableReader::finish() {
  std::string valid;
  for (const std::string_view key : known_) valid.append(valid.empty() ? "" : ", ").append(key);
  for (const auto& [key, node] : table_) {
    if (known_.count(key.str()) != 0) continue;
    document_.note(key.source().begin,
                   "unknown key " + std::string(key.str()) + "; there are: " + valid);
  }
}

}  // namespace zq::devservice
