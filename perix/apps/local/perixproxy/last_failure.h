// The report of PerixLastFailure(), of which each thread has its own.
#pragma once

#include <chrono>
#include <string_view>
#include <variant>

#include "perix/failure.h"
#include "zqbus/message.h"

namespace zq {

/// Trivially destructible: operations may run in destructors of static objects, when the thread's
/// other objects are gone.
struct LastFailure {
  PerixFailure failure = PerixFailure::None;
  char method[64] = {};
  char text[512] = {};
  std::chrono::microseconds waiting{};
  std::chrono::microseconds lookUps{};
  std::chrono::microseconds total{};

  using Duration = std::chrono::steady_clock::duration;
  void setTimes(Duration waited, Duration lookingUp, Duration inAll);
  /// Longer texts are cut. The times stay as they are.
  void set(PerixFailure kind, std::string_view busMethod, std::string_view words);
  /// Adds the time that the operation waited for others to the words of a time-out.
  void explainTimeOut();
  void clear() { set(PerixFailure::None, "", ""); }
  /// From a reply of `method`; `words` is the text of an error reply.
  void setFrom(const ZQBusMessage& reply, std::string_view busMethod, std::string_view words);
};

/// The report of this thread.
LastFailure& lastFailure();

/// Notes that the service was not asked, and why not.
void noteNotAsked(const char* method, const char* why);
/// Notes, for all threads, why the proxy could not connect; None when it has connected.
void noteConnecting(PerixFailure failure, std::string_view words);
/// Notes that there is no service, and why the last attempt to connect failed; or that this process
/// is a forked child.
void noteNoService(const char* method);

/// Notes that an argument of an answer is missing or has another type.
void noteWrongArgument(const char* method, std::size_t index);

/// Whether argument `index` of an answer is of a type; if not, notes that.
template <typename Type>
bool hasArgument(const ZQBusMessage& answer, std::size_t index, const char* method) {
  const auto& arguments = answer.arguments();
  if (index < arguments.size() && std::holds_alternative<Type>(arguments[index])) return true;
  noteWrongArgument(method, index);
  return false;
}

}  // namespace zq
