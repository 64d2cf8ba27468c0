/// @file
/// The version of these headers, and that of the library that is loaded.
#pragma once

// The build reads the version from these lines.
#define PERIX_VERSION_MAJOR 0  ///< binaries of another major number do not fit
#define PERIX_VERSION_MINOR 1  ///< grows with each new operation
#define PERIX_VERSION_PATCH 0  ///< grows with every other change

/// The version as one number, for the preprocessor: 1002003 is 1.2.3.
#define PERIX_VERSION_NUMBER \
  (PERIX_VERSION_MAJOR * 1000000 + PERIX_VERSION_MINOR * 1000 + PERIX_VERSION_PATCH)

namespace zq {

/// The version of the library that is loaded, as PERIX_VERSION_NUMBER. It may exceed that of the
/// headers: a later library serves a program that was built earlier. Never blocks, never throws.
[[gnu::visibility("default")]] int PerixLibraryVersion();

}  // namespace zq
