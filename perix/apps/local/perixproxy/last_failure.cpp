#include "last_failure.h"

#include <cstdio>
#include <cstring>
#include <exception>

#include "forked_child.h"
#include "platform/text/utf8.h"

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

}  // namespace

LastFailure& lastFailure() {
  return last;
}

void LastFailure::set(PerixFailure kind, std::string_view busMethod, std::string_view words) {
  failure = kind;
  copyCut(method, busMethod);
  copyCut(text, words);
}

void LastFailure::setFrom(const ZQBusMessage& reply, std::string_view busMethod,
                          std::string_view words) {
  if (reply.type() == 2) return clear();
  set(failureOf(reply.failure()), busMethod, words);
}

void noteNotAsked(const char* method, const char* why) {
  last = {};
  last.set(PerixFailure::NotAsked, method, why);
}

void noteNoService(const char* method, const char* words) {
  if (inForkedChild()) {
    last.set(PerixFailure::Forked, method,
             "the connection to the service belongs to the process that forked this one");
  } else {
    last.set(PerixFailure::NoService, method, words);
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
