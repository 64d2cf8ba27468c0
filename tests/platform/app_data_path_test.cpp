#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "platform/util/util.h"

namespace zq {
namespace {

namespace fs = std::filesystem;

class AppDataPath : public testing::Test {
 protected:
  AppDataPath() {
    ::setenv("HOME", (root_ / "home").c_str(), 1);
    std::ofstream(root_ / "file") << "not a directory";
  }
  ~AppDataPath() override { fs::remove_all(root_); }

  fs::path pathWithStateHome(const fs::path& stateHome) {
    ::setenv("XDG_STATE_HOME", stateHome.c_str(), 1);
    std::string path = "left over";
    const bool found = GetAppDataPath(path);
    EXPECT_EQ(found, !path.empty());
    return path;
  }

  std::string pattern_ = fs::temp_directory_path() / "perix-path-XXXXXX";
  const fs::path root_ = ::mkdtemp(pattern_.data());
};

TEST_F(AppDataPath, IsInStateHomeElseInHome) {
  EXPECT_EQ(pathWithStateHome(root_ / "state"), root_ / "state/perix");
  const fs::path inHome = root_ / "home/.local/state/perix";
  EXPECT_EQ(pathWithStateHome(""), inHome);
  EXPECT_EQ(pathWithStateHome("relative/path"), inHome);
}

TEST_F(AppDataPath, IsEmptyWithoutPlace) {
  EXPECT_EQ(pathWithStateHome(root_ / "file/state"), "");
  ::unsetenv("HOME");
  EXPECT_EQ(pathWithStateHome(""), "");
}

TEST_F(AppDataPath, IsPrivateWithItsParents) {
  const mode_t mask = ::umask(0);
  pathWithStateHome(root_ / "a/b");
  ::umask(mask);
  for (const char* made : {"a", "a/b", "a/b/perix"}) {
    EXPECT_EQ(fs::status(root_ / made).permissions(), fs::perms::owner_all) << made;
  }
}

}  // namespace
}  // namespace zq
