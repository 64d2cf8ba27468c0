// Texts in the fixed-size fields of records.
#pragma once

#include <cstring>
#include <string>
#include <string_view>

namespace zq {

/// A text of a record, copied; allocates nothing.
template <std::size_t size>
class FieldText {
 public:
  explicit FieldText(const char (&field)[size]) : length_(strnlen(field, size)) {
    std::memcpy(text_, field, length_);
    text_[length_] = '\0';
  }
  const char* c_str() const { return text_; }
  std::string_view view() const { return {text_, length_}; }

 private:
  std::size_t length_;
  char text_[size + 1];
};

/// The text of a field, which may lack its NUL.
template <std::size_t size>
FieldText<size> fieldText(const char (&field)[size]) {
  return FieldText<size>(field);
}

/// The same as a string.
template <std::size_t size>
std::string textIn(const char (&field)[size]) {
  return std::string(fieldText(field).view());
}

/// Sets a zeroed field to the text, cut so that a NUL stays behind it.
template <std::size_t size>
void setField(char (&field)[size], std::string_view text) {
  std::memcpy(field, text.data(), text.size() < size ? text.size() : size - 1);
}

}  // namespace zq
