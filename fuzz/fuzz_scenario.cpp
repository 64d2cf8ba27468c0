// Scenarios of any text: either a world comes of it, which can be written and read again, or
// mistakes that say where they are.
#include <cctype>
#include <string>

#include "fuzz/input.h"
#include "service/scenario/scenario.h"

namespace zq::fuzz {
namespace {

constexpr char kSource[] = "input";

bool takeNumber(std::string_view& text) {
  std::size_t digits = 0;
  while (digits < text.size() && std::isdigit(static_cast<unsigned char>(text[digits])) != 0)
    ++digits;
  text.remove_prefix(digits);
  return digits > 0;
}

bool takeText(std::string_view& text, std::string_view expected) {
  if (!text.starts_with(expected)) return false;
  text.remove_prefix(expected.size());
  return true;
}

/// "input:LINE:COLUMN: message"
bool isMistake(std::string_view line) {
  return takeText(line, kSource) && takeText(line, ":") && takeNumber(line) &&
         takeText(line, ":") && takeNumber(line) && takeText(line, ": ") && !line.empty();
}

template <typename Parse>
void parseAndCheck(Parse parse, const std::string& text) {
  std::vector<std::string> mistakes;
  require(parse(text, kSource, mistakes).has_value() == mistakes.empty());
  for (const std::string& mistake : mistakes) require(isMistake(mistake));
}

void writeAndReadAgain(const std::string& text) {
  std::vector<std::string> mistakes;
  const auto scenario = devservice::parseScenario(text, kSource, mistakes);
  if (!scenario) return;
  const std::string written = devservice::toToml(*scenario);
  const auto read = devservice::parseScenario(written, kSource, mistakes);
  require(read.has_value());
  require(devservice::toToml(*read) == written);
}

}  // namespace
}  // namespace zq::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  zq::fuzz::parseAndCheck(zq::devservice::parseScenario, text);
  zq::fuzz::parseAndCheck(zq::devservice::parseDevice, text);
  zq::fuzz::writeAndReadAgain(text);
  return 0;
}
