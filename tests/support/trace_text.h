// The lines of a trace file.
#pragma once

#include <fstream>
#include <string>
#include <vector>

namespace zq {

inline std::vector<std::string> linesOf(const std::string& file) {
  std::ifstream in(file);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

/// A line of a trace without the members that differ between runs and between ways.
inline std::string normalised(std::string line) {
  for (const char* key :
       {"time", "ns", "process", "program", "connection", "duration", "way", "peer"}) {
    const auto begin = line.find('"' + std::string(key) + "\":");
    if (begin == std::string::npos) continue;
    const auto end = line.find_first_of(",}", begin);
    line.erase(begin, end - begin + (line[end] == ',' ? 1 : 0));
  }
  const auto last = line.rfind(",}");
  return last == std::string::npos ? line : line.erase(last, 1);
}

}  // namespace zq
