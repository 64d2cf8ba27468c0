#include "service/model/printer_backend.h"

#include <strings.h>

#include <algorithm>
#include <iterator>

namespace zq::devservice {
namespace {

bool containsIgnoringCase(const std::string& text, const std::string& part) {
  const auto sameLetter = [](char a, char b) { return strncasecmp(&a, &b, 1) == 0; };
  return std::search(text.begin(), text.end(), part.begin(), part.end(), sameLetter) != text.end();
}

}  // namespace

std::vector<Driver> driversThatFit(const std::vector<Driver>& drivers, const std::string& query) {
  std::vector<Driver> fitting;
  std::copy_if(drivers.begin(), drivers.end(), std::back_inserter(fitting),
               [&query](const Driver& driver) {
                 return containsIgnoringCase(driver.name, query) ||
                        containsIgnoringCase(driver.maker, query);
               });
  return fitting;
}

}  // namespace zq::devservice
