// What this process holds.
#pragma once

namespace zq {

/// Open descriptors, and resident memory in KiB, of this process. Sanitizers keep what was freed,
/// so under them the memory says nothing and is 0.
int openDescriptors();
long residentKib();

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif

}  // namespace zq
