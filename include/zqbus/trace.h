// A trace of the bus: each call, event, broadcast, death and connection of this process, as one
// entry when it is over.
//
// ZQBUS_TRACE=FILE in the environment writes the trace of a client or a service to FILE, one JSON
// document a line; startZQBusTrace() does the same. The trace covers the interfaces and services
// that are obtained after it was started, and a forked child writes none. A program that runs
// set-user-ID or with capabilities ignores the variable.
//
// Secrets. An argument that markSecret() marked, and the arguments of a method that a service
// describes as secret, are shown by their sizes alone.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zqbus/message.h"

namespace zq {

struct ZQBusTraceEntry {
  enum class Kind {
    Call,        ///< a call and its outcome
    Event,       ///< an event of a service
    Broadcast,   ///< a broadcast
    Connection,  ///< a connection to the bus or to a service, or the reason why there is none
    Death,       ///< the end of the service at the other end
  };

  Kind kind = Kind::Call;
  bool isSent = false;          ///< made by this process; else received
  bool isAsynchronous = false;  ///< of a call that was sent: nobody blocked for the reply
  /// When the call began, or when the event was sent or delivered.
  std::chrono::system_clock::time_point wall;
  std::chrono::nanoseconds monotonic{0};  ///< the same on the steady clock
  std::chrono::nanoseconds duration{0};   ///< of a call, from its beginning to its outcome
  int process = 0;
  std::string program;  ///< the name of the process
  /// Of a client, its interface or its listener for broadcasts, numbered from 1 in the process.
  /// Each hears an event of its own.
  int connection = 0;
  std::optional<ZQBusWay> way;
  std::string service;   ///< the service's name on the bus, as "perix"
  std::string peer;      ///< the unique name of the other side, where it is known
  std::string text;      ///< of a connection: the reason why there is none
  ZQBusMessage content;  ///< the call or the event, named; secrets are left out
  ZQBusMessage reply;    ///< of a call
};

/// The entry as one JSON document without a line end, as docs/tracing.md describes it. A block is
/// shown in hex up to 4096 bytes, a text up to 65536 bytes, with their full sizes.
std::string toJson(const ZQBusTraceEntry& entry);
/// Reads what toJson() writes. False when `line` is something else; `error` then says what is
/// wrong with it, and `entry` is unchanged. What was cut comes back at its full size, filled with
/// zeros, and a secret as an empty text that is marked as secret.
[[nodiscard]] bool fromJson(std::string_view line, ZQBusTraceEntry& entry, std::string& error);

/// Reads a whole trace, in the order in which things began. False when the file cannot be read or
/// holds anything else; `error` is "FILE:LINE: MISTAKE" then, and `entries` is unchanged.
[[nodiscard]] bool readZQBusTrace(const std::string& file, std::vector<ZQBusTraceEntry>& entries,
                                  std::string& error);

/// Writes entries to `file` from now on, in place of the file so far, until stopZQBusTrace() or the
/// end of the process. Creates it for this user alone, or appends to it; only a regular file of
/// this user is taken. False when there is no such file; `error` says why. Blocks for opening the
/// file. Entries are written by a thread of the library, so no call waits for the disk: at most
/// 8 MiB wait to be written, and entries beyond that, or that the disk does not take, are dropped
/// and counted. The last line tells how many there were of both.
bool startZQBusTrace(const std::string& file, std::string& error);
/// Hands each entry to `sink` from now on, beside the file or without one; an empty one ends it. Is
/// called on the thread on which the entry came about, one entry at a time, and must not use the
/// bus. Does not wait for a call of the sink before that is still running.
void setZQBusTraceSink(std::function<void(const ZQBusTraceEntry&)> sink);
/// Ends both, and writes what is waiting, for a second at most.
void stopZQBusTrace();

}  // namespace zq
