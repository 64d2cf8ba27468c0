#include "service/model/test_page.h"

#include <array>
#include <cstdio>
#include <vector>

namespace zq::devservice {
namespace {

/// A PDF string: the text in parentheses, with its own parentheses escaped.
std::string quoted(const std::string& text) {
  std::string result = "(";
  for (const char c : text) {
    if (c == '(' || c == ')' || c == '\\') result += '\\';
    result += c;
  }
  return result + ")";
}

std::string content(const std::string& printer) {
  const std::string drawing = "BT /F1 24 Tf 72 720 Td " + quoted("Test page") +
                              " Tj /F1 12 Tf 0 -36 Td " + quoted("Printer: " + printer) +
                              " Tj ET\n72 660 451 1 re f\n";
  return "<< /Length " + std::to_string(drawing.size()) + " >>\nstream\n" + drawing + "endstream";
}

std::string crossReference(const std::vector<std::size_t>& offsets) {
  std::string table = "xref\n0 " + std::to_string(offsets.size() + 1) + "\n0000000000 65535 f \n";
  for (const std::size_t offset : offsets) {
    std::array<char, 21> entry{};
    std::snprintf(entry.data(), entry.size(), "%010zu 00000 n \n", offset);
    table += entry.data();
  }
  return table;
}

}  // namespace

std::string testPage(const std::string& printer) {
  const std::array objects = {
      std::string("<< /Type /Catalog /Pages 2 0 R >>"),
      std::string("<< /Type /Pages /Kids [3 0 R] /Count 1 >>"),
      std::string("<< /Type /Page /Parent 2 0 R /MediaBox [0 0 595 842] /Contents 4 0 R"
                  " /Resources << /Font << /F1 5 0 R >> >> >>"),
      content(printer),
      std::string("<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica >>"),
  };
  std::string document = "%PDF-1.4\n";
  std::vector<std::size_t> offsets;
  for (const std::string& object : objects) {
    offsets.push_back(document.size());
    document += std::to_string(offsets.size()) + " 0 obj\n" + object + "\nendobj\n";
  }
  const std::size_t start = document.size();
  document += crossReference(offsets);
  return document + "trailer\n<< /Size " + std::to_string(objects.size() + 1) +
         " /Root 1 0 R >>\nstartxref\n" + std::to_string(start) + "\n%%EOF\n";
}

}  // namespace zq::devservice
