// Why an operation failed.
//
// The operations of PerixProxy return -1, 0 or something empty for every failure that is not the
// service's own result, so the value alone does not tell a dead service from a slow one. This does.
#pragma once

#include <string>

namespace zq {

enum class PerixFailure {
  None,        ///< the service answered; what the operation returned is the service's own
  NoService,   ///< not connected: the service is not running, or no bus
  Died,        ///< the service or the bus went away during the call
  TimedOut,    ///< no answer within the operation's time-out
  Refused,     ///< the service answered with an error
  TooLarge,    ///< an argument or the reply is larger than the bus carries
  Unreadable,  ///< the service answered, and the answer cannot be read
};

struct PerixFailureReport {
  PerixFailure failure = PerixFailure::None;
  std::string method;  ///< the bus method that failed
  std::string text;    ///< in words: the service's, or the library's
};

/// How the last operation that this thread made ended, as far as it asked the service; operations
/// that ask nobody leave it as it was. A copy, the caller's own. Never blocks.
[[gnu::visibility("default")]] PerixFailureReport PerixLastFailure();

}  // namespace zq
