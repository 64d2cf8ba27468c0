// Texts in fixed-layout records.
#pragma once

#include <cstring>
#include <string>

namespace zq {

/// The text of a field, which may lack its NUL.
template <std::size_t size>
std::string fieldText(const char (&field)[size]) {
  return {field, strnlen(field, size)};
}

/// Sets a zeroed field to the text, cut so that a NUL stays behind it.
template <std::size_t size>
void setField(char (&field)[size], const std::string& text) {
  std::memcpy(field, text.data(), text.size() < size ? text.size() : size - 1);
}

}  // namespace zq
