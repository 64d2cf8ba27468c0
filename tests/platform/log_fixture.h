// A log of the test's own process, in a directory of its own.
#pragma once

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "platform/log/log.h"
#include "tests/support/trace_text.h"

namespace zq {

namespace fs = std::filesystem;

inline constexpr int kError = 7;
inline constexpr int kDebug = 5;

class Log : public testing::Test {
 protected:
  Log() { feroxLogInit(directory_.c_str()); }
  ~Log() override { fs::remove_all(directory_); }

  std::string lastLine() const {
    const auto lines = linesOf(file_);
    return lines.empty() ? "" : lines.back();
  }

  fs::path older(int age) const {
    return directory_ / (fs::path(file_).stem().string() + '.' + std::to_string(age) + ".log");
  }

  std::string pattern_ = fs::temp_directory_path() / "perix-log-XXXXXX";
  const fs::path directory_ = ::mkdtemp(pattern_.data());
  const fs::path file_ = directory_ / (std::string(program_invocation_short_name) + ".log");
};

}  // namespace zq
