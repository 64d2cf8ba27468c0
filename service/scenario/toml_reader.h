// Reads TOML tables strictly: every mistake is noted with its place, and reading goes on.
#pragma once

#include <toml++/toml.h>

#include <array>
#include <limits>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "service/scenario/words.h"

namespace zq::devservice {

/// The mistakes of one document, each as "source:line:column: message".
class Mistakes {
 public:
  explicit Mistakes(std::string source) : source_(std::move(source)) {}

  void note(const toml::source_position& place, std::string_view message);
  const std::vector<std::string>& lines() const { return lines_; }

 private:
  std::string source_;
  std::vector<std::string> lines_;
};

/// One table. Every reader takes a key, changes its output only when the key is there and its value
/// fits, and returns whether it did. finish() notes the keys that nobody read.
class TableReader {
 public:
  TableReader(const toml::table& table, Mistakes& mistakes) : table_(table), mistakes_(mistakes) {}

  bool text(std::string_view key, std::string& out,
            std::size_t longest = std::numeric_limits<std::size_t>::max());
  bool flag(std::string_view key, bool& out);
  /// A number from 1 to 2^64-1; those beyond TOML's integers are texts of decimal digits.
  bool number64(std::string_view key, uint64_t& out);
  template <typename Integer>
  bool number(std::string_view key, Integer& out, int64_t least, int64_t most) {
    int64_t value = 0;
    if (!integer(key, value, least, most)) return false;
    out = static_cast<Integer>(value);
    return true;
  }
  template <typename Value, std::size_t N>
  bool word(std::string_view key, Value& out, const std::array<Word<Value>, N>& words) {
    const toml::node* node = take(key);
    return node != nullptr && wordAt(*node, key, out, words);
  }
  template <typename Value, std::size_t N>
  void words(std::string_view key, std::vector<Value>& out,
             const std::array<Word<Value>, N>& words) {
    for (const toml::node* node : list(key)) {
      Value value{};
      if (wordAt(*node, key, value, words)) out.push_back(value);
    }
  }
  /// The tables of an array of tables; none when there is no such key.
  std::vector<const toml::table*> tables(std::string_view key);
  /// The table of that key, null when there is none.
  const toml::table* table(std::string_view key);

  /// Notes that a key that must be there is not.
  void require(std::string_view key);
  /// Notes a mistake at the value of `key`, or at the table when there is none.
  void complain(std::string_view key, std::string_view message);
  void finish();

  Mistakes& mistakes() { return mistakes_; }

 private:
  const toml::node* take(std::string_view key);
  bool integer(std::string_view key, int64_t& out, int64_t least, int64_t most);
  std::vector<const toml::node*> list(std::string_view key);

  template <typename Value, std::size_t N>
  bool wordAt(const toml::node& node, std::string_view key, Value& out,
              const std::array<Word<Value>, N>& words) {
    std::string valid;
    for (const auto& [word, value] : words) {
      if (node.value_or(std::string_view()) == word) {
        out = value;
        return true;
      }
      valid.append(valid.empty() ? "" : ", ").append(word);
    }
    mistakes_.note(node.source().begin, std::string(key) + " is one of: " + valid);
    return false;
  }

  const toml::table& table_;
  Mistakes& mistakes_;
  std::set<std::string_view> known_;
};

}  // namespace zq::devservice
