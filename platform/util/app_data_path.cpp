#include <cstdlib>
#include <filesystem>

#include "platform/util/private_directory.h"
#include "platform/util/util.h"

namespace zq {
namespace {

// The path in an environment variable; empty unless it is absolute, as the XDG base directories
// have it. A program with more rights than its caller ignores the environment.
std::filesystem::path absolutePathFrom(const char* variable) {
  const char* value = ::secure_getenv(variable);
  const std::filesystem::path path = value ? value : "";
  return path.is_absolute() ? path : std::filesystem::path();
}

std::filesystem::path stateDirectory() {
  if (auto state = absolutePathFrom("XDG_STATE_HOME"); !state.empty()) return state;
  const auto home = absolutePathFrom("HOME");
  return home.empty() ? home : home / ".local" / "state";
}

}  // namespace

bool GetAppDataPath(std::string& path) try {
  path.clear();
  const auto state = stateDirectory();
  if (state.empty() || !createPrivateDirectory(state / "perix")) return false;
  path = state / "perix";
  return true;
} catch (const std::exception&) {
  return false;
}

}  // namespace zq
