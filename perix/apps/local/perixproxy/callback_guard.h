// Calling the client's code.
#pragma once

#include <exception>

#include "log_line.h"

namespace zq {

/// Runs a call of a client's callback. What it throws ends that callback alone: the others are
/// called, and events go on.
template <typename Call>
void guarded(Call call, LogSite site = here()) {
  try {
    call();
  } catch (const std::exception& error) {
    PERIX_ERROR_AT(site, "a callback threw: %s", error.what());
  } catch (...) {
    PERIX_ERROR_AT(site, "a callback threw what is no std::exception");
  }
}

}  // namespace zq
