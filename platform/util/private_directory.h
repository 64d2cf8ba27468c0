// Directories that nobody but the user can look into.
#pragma once

#include <filesystem>

namespace zq {

/// Creates `directory` and the parents that are missing, each with mode 0700; what exists stays as
/// it is, others' directories too. True when there is such a directory now. Any thread; never
/// throws.
[[nodiscard]] bool createPrivateDirectory(const std::filesystem::path& directory) noexcept;

}  // namespace zq
