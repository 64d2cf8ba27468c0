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

/// Why a test of a forked child is skipped under the sanitizers: they do not take their allocators'
/// locks around a fork, as the C library does.
inline constexpr char kHangsInSanitizer[] = "the child may hang in the sanitizer's allocator";

}  // namespace zq
