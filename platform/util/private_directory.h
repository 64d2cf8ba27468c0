// Directories that only the user can read.
#pragma once

#include <filesystem>

namespace zq {

/// Creates `directory` and the parents that are missing, each with mode 0700; an existing directory
/// stays as it is, even another user's. True when `directory` exists now. Any thread; never throws.
[[nodiscard]] bool createPrivateDirectory(const std::filesystem::path& directory) noexcept;

}  // namespace zq
