#include "service/scenario/toml_reader.h"

#include <charconv>

namespace zq::devservice {
namespace {

constexpr std::string_view kWrongType = " has the wrong type; it is ";

}  // namespace

void Mistakes::note(const toml::source_position& place, std::string_view message) {
  lines_.push_back(source_ + ":" + std::to_string(place.line) + ":" + std::to_string(place.column) +
                   ": " + std::string(message));
}

const toml::node* TableReader::take(std::string_view key) {
  known_.insert(key);
  return table_.get(key);
}

bool TableReader::text(std::string_view key, std::string& out, std::size_t longest) {
  const toml::node* node = take(key);
  if (node == nullptr) return false;
  const auto* text = node->as_string();
  if (text == nullptr) {
    complain(key, std::string(key) + std::string(kWrongType) + "a text");
  } else if (text->get().size() > longest) {
    complain(key, std::string(key) + " has more than " + std::to_string(longest) + " bytes");
  } else {
    out = text->get();
    return true;
  }
  return false;
}

bool TableReader::flag(std::string_view key, bool& out) {
  const toml::node* node = take(key);
  if (node == nullptr) return false;
  const auto* flag = node->as_boolean();
  if (flag == nullptr) {
    complain(key, std::string(key) + std::string(kWrongType) + "true or false");
    return false;
  }
  out = flag->get();
  return true;
}

bool TableReader::integer(std::string_view key, int64_t& out, int64_t least, int64_t most) {
  const toml::node* node = take(key);
  if (node == nullptr) return false;
  const auto* number = node->as_integer();
  if (number == nullptr) {
    complain(key, std::string(key) + std::string(kWrongType) + "a whole number");
  } else if (number->get() < least || number->get() > most) {
    complain(key, std::string(key) + " is out of range; it goes from " + std::to_string(least) +
                      " to " + std::to_string(most));
  } else {
    out = number->get();
    return true;
  }
  return false;
}

bool TableReader::number64(std::string_view key, uint64_t& out) {
  const toml::node* node = take(key);
  if (node == nullptr) return false;
  uint64_t number = 0;
  if (const auto* digits = node->as_string()) {
    const std::string& text = digits->get();
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc{} || stop != text.data() + text.size()) number = 0;
  } else if (const auto* integer = node->as_integer(); integer != nullptr && integer->get() > 0) {
    number = static_cast<uint64_t>(integer->get());
  }
  if (number == 0) {
    complain(key, std::string(key) +
                      " is out of range; it goes from 1 to 2^64-1, beyond 2^63-1 as a text");
    return false;
  }
  out = number;
  return true;
}

std::vector<const toml::node*> TableReader::list(std::string_view key) {
  std::vector<const toml::node*> nodes;
  const toml::node* node = take(key);
  if (node == nullptr) return nodes;
  const auto* array = node->as_array();
  if (array == nullptr) {
    complain(key, std::string(key) + std::string(kWrongType) + "a list");
    return nodes;
  }
  for (const toml::node& element : *array) nodes.push_back(&element);
  return nodes;
}

std::vector<const toml::table*> TableReader::tables(std::string_view key) {
  std::vector<const toml::table*> tables;
  for (const toml::node* node : list(key)) {
    if (node->as_table() != nullptr) {
      tables.push_back(node->as_table());
    } else {
      mistakes_.note(node->source().begin, std::string(key) + " is a list of tables");
    }
  }
  return tables;
}

const toml::table* TableReader::table(std::string_view key) {
  const toml::node* node = take(key);
  if (node == nullptr) return nullptr;
  if (node->as_table() == nullptr) {
    complain(key, std::string(key) + std::string(kWrongType) + "a table");
  }
  return node->as_table();
}

void TableReader::require(std::string_view key) {
  if (!table_.contains(key)) complain(key, std::string(key) + " is missing");
}

void TableReader::complain(std::string_view key, std::string_view message) {
  const toml::node* node = table_.get(key);
  const toml::source_region& place = node == nullptr ? table_.source() : node->source();
  mistakes_.note(place.begin, message);
}

void TableReader::finish() {
  std::string valid;
  for (const std::string_view key : known_) valid.append(valid.empty() ? "" : ", ").append(key);
  for (const auto& [key, node] : table_) {
    if (known_.count(key.str()) != 0) continue;
    mistakes_.note(key.source().begin,
                   "unknown key " + std::string(key.str()) + "; there are: " + valid);
  }
}

}  // namespace zq::devservice
