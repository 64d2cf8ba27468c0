/// @file
/// Why an operation failed, and where its time went.
///
/// The operations of PerixProxy return -1, 0 or an empty value for every failure that is not a
/// result of the service, so the value alone does not tell a dead service from a slow service. The
/// report of PerixLastFailure does.
#pragma once

#include <chrono>
#include <string>

namespace zq {

/// Treat a kind that you do not know as a failure: later versions may have more.
enum class PerixFailure {
  None,        ///< the service answered; the operation returned the service's answer
  NoService,   ///< not connected: no process of this user or of root owns the service's name
  Died,        ///< the service or the bus went away during the call, or memory was too short to
               ///< read from it
  TimedOut,    ///< no answer within the operation's time-out
  Refused,     ///< the service answered with an error
  TooLarge,    ///< an argument or the reply is larger than the bus carries
  Unreadable,  ///< the service answered, but the answer cannot be read, lacks an argument or has an
               ///< argument of another type; the operation's contract says what it returns then
  NotAsked,    ///< the library refused the argument or the caller's role without asking
  Forked,      ///< this process is a forked child; the connection belongs to its parent
  NoMemory,    ///< the library gave up: no memory, or an overriding operation threw
  NoBus,       ///< not connected: the bus cannot be reached, or does not admit this process
};

/// How an operation ended.
struct PerixFailureReport {
  PerixFailure failure = PerixFailure::None;  ///< why it failed; None for a success
  std::string method;  ///< the bus method that failed; "getVmListSize" for a desktop id's look-up
  /// The reason, 511 bytes at most. For `Refused` the words of the service, else a sentence without
  /// its full stop: "cannot reach the bus at unix:path=/x: Connection refused".
  std::string text;
  std::chrono::microseconds waiting{};  ///< waited for other operations to end
  std::chrono::microseconds lookUps{};  ///< spent in look-ups of desktop ids
  std::chrono::microseconds total{};    ///< the whole time, connecting and the answer included
};

/// How the last operation of this thread ended, if it asked the service or would have asked it. An
/// operation that does not ask the service leaves the report as it was, unless it fails in a forked
/// child or for lack of memory. Init() and getInstance() tell here why they could not connect, with
/// an empty `method`. After a success, `method` and `text` are empty. An operation that
/// succeeded, but could not look up the id of a desktop and so sent 0 for it, reports the failure
/// of the look-up. The report is a copy and belongs to the caller. Never blocks, never throws.
[[gnu::visibility("default")]] PerixFailureReport PerixLastFailure();

}  // namespace zq
