#include "last_failure.h"

#include <cstdio>
#include <cstring>
#include <exception>

#include "forked_child.h"
#include "platform/text/utf8.h"
#include "platform/util/mutex.h"

namespace zq {
namespace {

thread_local constinit LastFailure last;

PerixFailure failureOf(ZQBusFailure failure) {
  switch (failure) {
    case ZQBusFailure::None:
      return PerixFailure::None;
    case ZQBusFailure::TimedOut:
      return PerixFailure::TimedOut;
    case ZQBusFailure::TooLarge:
      return PerixFailure::TooLarge;
    case ZQBusFailure::PeerGone:
    case ZQBusFailure::BusGone:
      return PerixFailure::Died;
    case ZQBusFailure::Unusable:
      return PerixFailure::NoService;
    case ZQBusFailure::Unreadable:
      return PerixFailure::Unreadable;
    case ZQBusFailure::Service:
      break;
  }
  return PerixFailure::Refused;
}

/// Copies a text, cut between two characters of UTF-8 where it is too long.
template <std::size_t size>
void copyCut(char (&to)[size], std::string_view text) {
  const std::size_t length = cutText(text, size - 1).size();
  std::memmove(to, text.data(), length);  // it may be this very text
  to[length] = '\0';
}

/// The outcome of the last attempt of this process to connect. Trivially destructible, as
/// LastFailure.
struct Connecting {
  Mutex mutex;
  PerixFailure failure GUARDED_BY(mutex) = PerixFailure::None;
  char text[512] GUARDED_BY(mutex) = {};
};
constinit Connecting connecting;

}  // namespace

LastFailure& lastFailure() {
  return last;
}

void LastFailure::setTimes(Duration waited, Duration lookingUp, Duration inAll) {
  using std::chrono::microseconds;
  waiting = std::chrono::duration_cast<microseconds>(waited);
  lookUps = std::chrono::duration_cast<microseconds>(lookingUp);
  total = std::chrono::duration_cast<microseconds>(inAll);
}

void LastFailure::set(PerixFailure kind, std::string_view busMethod, std::string_view words) {
  failure = kind;
  copyCut(method, busMethod);
  copyCut(text, words);
}

void LastFailure::setFrom(const ZQBusMessage& reply, std::string_view busMethod,
                          std::string_view words) {
  if (reply.type() == 2) return clear();
  set(failureOf(reply.failure()), busMethod,
      words.empty() ? "the service answered with an error that has no text" : words);
}

void LastFailure::explainTimeOut() {
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(waiting).count();
  if (failure != PerixFailure::TimedOut || ms == 0) return;
  const std::size_t length = std::strlen(text);
  std::snprintf(text + length, sizeof text - length,
                ", after %lld ms of waiting for other operations", static_cast<long long>(ms));
}

void noteNotAsked(const char* method, const char* why) {
  last = {};
  last.set(PerixFailure::NotAsked, method, why);
}

void noteConnecting(PerixFailure failure, std::string_view words) {
  const MutexLock lock(connecting.mutex);
  connecting.failure = failure;
  copyCut(connecting.text, words);
}

void noteNoService(const char* method) {
  last = {};
  if (inForkedChild()) {
    return last.set(PerixFailure::Forked, method,
                    "the connection to the service belongs to the process that forked this one");
  }
  const MutexLock lock(connecting.mutex);
  if (connecting.failure == PerixFailure::None) {
    last.set(PerixFailure::NoService, method, "the connection to the service was given up");
  } else {
    last.set(connecting.failure, method, connecting.text);
  }
}

void noteWrongArgument(const char* method, std::size_t index) {
  char words[80];
  std::snprintf(words, sizeof words, "argument %zu of the answer is missing or of another type",
                index);
  last.set(PerixFailure::Unreadable, method, words);
}

PerixFailureReport PerixLastFailure() {
  PerixFailureReport report;
  report.failure = last.failure;
  report.waiting = last.waiting;
  report.lookUps = last.lookUps;
  report.total = last.total;
  try {
    report.method = last.method;
    report.text = last.text;
  } catch (const std::exception&) {
    // No memory for the words: the kind says enough.
  }
  return report;
}

}  // namespace zq
