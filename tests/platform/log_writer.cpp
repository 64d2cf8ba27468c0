// A program that logs and prints: log_writer DIRECTORY COUNT. What it logs before the log has begun
// must not appear.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/log/log.h"

int main(int /*argc*/, char** arguments) {
  zq::orvaneLogPrint(0, 7, "TEST", "too early");
  zq::feroxLogInit(arguments[1]);
  zq::feroxLogInit(arguments[1]);
  std::puts("printed");
  const std::string filling(100, 'x');
  for (int line = 0; line < std::atoi(arguments[2]); ++line) {
    zq::orvaneLogPrint(0, 5, "TEST", "line %d %s end", line, filling.c_str());
  }
}
