#include "bench/load/orders.h"

#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <stdexcept>

namespace zq::load {
namespace {

std::FILE* output = nullptr;

}  // namespace

void takeStandardOutput() {
  output = ::fdopen(::dup(STDOUT_FILENO), "we");
  if (output == nullptr || std::freopen("/dev/null", "w", stdout) == nullptr) {
    throw std::runtime_error("no standard output");
  }
}

void tell(const std::string& line) {
  std::fprintf(output, "%s\n", line.c_str());
  std::fflush(output);
}

bool nextOrder(std::string& line) {
  return static_cast<bool>(std::getline(std::cin, line));
}

}  // namespace zq::load
