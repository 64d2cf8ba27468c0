// Why an operation failed, and where its time went.
//
// The operations of PerixProxy return -1, 0 or something empty for every failure that is not the
// service's own result, so the value alone does not tell a dead service from a slow one. This does.
#pragma once

#include <chrono>
#include <string>

namespace zq {

/// Treat a kind that you do not know as a failure: later versions may have more.
enum class PerixFailure {
  None,        ///< the service answered; what the operation returned is the service's own
  NoService,   ///< not connected: the service is not running, or no bus
  Died,        ///< the service or the bus went away during the call
  TimedOut,    ///< no answer within the operation's time-out
  Refused,     ///< the service answered with an error
  TooLarge,    ///< an argument or the reply is larger than the bus carries
  Unreadable,  ///< the service answered, and the answer cannot be read, or lacks an argument or has
               ///< one of another type; the operation made of it what its contract says
  NotAsked,    ///< refused on this side: an argument, or the caller's role, is not one that the
               ///< service is asked with
  Forked,      ///< this process is a forked child; the connection belongs to its parent
  NoMemory,    ///< gave up on this side: no memory, or an overriding operation threw
};

struct PerixFailureReport {
  PerixFailure failure = PerixFailure::None;
  std::string method;  ///< the bus method that failed; "getVmListSize" is a desktop id's look-up
  std::string text;    ///< in words, the service's or the library's; cut after 511 bytes
  std::chrono::microseconds waiting{};  ///< waited for other operations to end
  std::chrono::microseconds lookUps{};  ///< spent in look-ups of desktop ids
  std::chrono::microseconds total{};    ///< all of it, connecting and the service's answer included
};

/// How the last operation that this thread made ended, as far as it asked the service or would
/// have; operations that ask nobody leave it as it was, unless they fail in a forked child or for
/// lack of memory. After a success, `method` and `text` are empty. An operation that
/// succeeded, but could not look up a desktop's id and so sent 0 for it, reports the look-up's
/// failure. A copy, the caller's own. Never blocks, never throws.
[[gnu::visibility("default")]] PerixFailureReport PerixLastFailure();

}  // namespace zq
