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

/// Whether a child that is forked while other threads allocate may hang by itself: AddressSanitizer
/// does not take its allocator's locks around a fork, as the C library does.
#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kForksWithAllocatorLocked = true;
#else
inline constexpr bool kForksWithAllocatorLocked = false;
#endif

}  // namespace zq
