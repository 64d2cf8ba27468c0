// The drive token of all tests, and the check that it stands in no file that they leave.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace zq {

inline constexpr char kDriveToken[] = "kept-from-view";
inline constexpr char kDriveTokenInHex[] = "6b6570742d66726f6d2d76696577";

/// A test program calls it for its directories before it removes them: logs, traces and all else.
/// The line of UpdateDriveToken in the log is the one place where the token stands.
inline void expectNoTokenIn(const std::filesystem::path& directory) {
  std::error_code ignored;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(directory, ignored)) {
    if (!entry.is_regular_file(ignored)) continue;
    std::ostringstream content;
    content << std::ifstream(entry.path()).rdbuf();
    std::string text = content.str();
    const std::string logged = std::string("token:") + kDriveToken;
    const bool isLog = entry.path().extension() == ".log";
    for (std::size_t at = 0; isLog && (at = text.find(logged)) != std::string::npos;) {
      text.erase(at, logged.size());
    }
    for (const char* form : {kDriveToken, kDriveTokenInHex}) {
      EXPECT_EQ(text.find(form), std::string::npos) << entry.path() << " holds the drive token";
    }
  }
}

}  // namespace zq
