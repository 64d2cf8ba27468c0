#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "platform/util/util.h"

namespace zq {
namespace {

namespace fs = std::filesystem;

std::string pathIn(const fs::path& stateHome) {
  ::setenv("XDG_STATE_HOME", stateHome.c_str(), 1);
  std::string path = "left over";
  const bool found = GetAppDataPath(path);
  EXPECT_EQ(found, !path.empty());
  return path;
}

TEST(AppDataPath, IsPrivateInStateHomeElseInHome) {
  std::string pattern = fs::temp_directory_path() / "perix-path-XXXXXX";
  const fs::path root = ::mkdtemp(pattern.data());
  ::setenv("HOME", (root / "home").c_str(), 1);
  const mode_t mask = ::umask(0);
  EXPECT_EQ(pathIn(root / "a/b"), root / "a/b/perix");
  ::umask(mask);
  for (const char* made : {"a", "a/b", "a/b/perix"}) {
    EXPECT_EQ(fs::status(root / made).permissions(), fs::perms::owner_all) << made;
  }
  EXPECT_EQ(pathIn(""), root / "home/.local/state/perix");
  EXPECT_EQ(pathIn("relative/path"), root / "home/.local/state/perix");

  std::ofstream(root / "file") << "not a directory";
  EXPECT_EQ(pathIn(root / "file/state"), "");
  ::unsetenv("HOME");
  EXPECT_EQ(pathIn(""), "");
  fs::remove_all(root);
}

}  // namespace
}  // namespace zq
