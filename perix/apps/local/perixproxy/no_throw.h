// Exceptions of the client's code stop at the call, exceptions of the library at the operation.
#pragma once

#include <exception>

#include "last_failure.h"
#include "log_line.h"

namespace zq {

/// In words, the exception that is being handled.
const char* currentException();

/// Runs a call of the client's code. An exception ends that call alone: other callbacks are
/// called, and events go on.
template <typename Call>
void guarded(Call call, LogSite site = here()) {
  try {
    call();
  } catch (...) {
    PERIX_ERROR_AT(site, "a callback threw: %s", currentException());
  }
}

/// For the handler around an operation: logs the exception.
inline void logThrown(LogSite site = here()) {
  PERIX_ERROR_AT(site, "gave up: %s", currentException());
}

/// Returns `result`, which is what the operation returns then.
template <typename Result>
Result gaveUp(Result result, LogSite site = here()) {
  logThrown(site);
  return result;
}

/// The same for an operation that calls `method`: PerixLastFailure() reports it.
template <typename Result>
Result gaveUp(const char* method, Result result, LogSite site = here()) {
  lastFailure().set(PerixFailure::NoMemory, method, currentException());
  logThrown(site);
  return result;
}

}  // namespace zq
