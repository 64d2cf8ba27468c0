#include "platform/util/private_directory.h"

#include <sys/stat.h>

namespace zq {

bool createPrivateDirectory(const std::filesystem::path& directory) noexcept try {
  if (std::filesystem::is_directory(directory)) return true;
  // mkdir(2) rather than std::filesystem: the directory has its mode from the first moment.
  std::filesystem::path made;
  for (const std::filesystem::path& part : directory) {
    made /= part;
    ::mkdir(made.c_str(), S_IRWXU);
  }
  return std::filesystem::is_directory(directory);
} catch (const std::exception&) {
  return false;
}

}  // namespace zq
