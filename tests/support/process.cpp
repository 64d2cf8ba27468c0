#include "process.h"

#include <filesystem>
#include <fstream>
#include <iterator>

namespace zq {

int openDescriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<int>(std::distance(begin(all), end(all)));
}

long residentKib() {
  if (kSanitized) return 0;
  std::ifstream statm("/proc/self/statm");
  long total = 0;
  long resident = 0;
  statm >> total >> resident;
  return resident * 4;
}

}  // namespace zq
