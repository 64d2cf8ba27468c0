// Runs the handler of a service.
#pragma once

#include <memory>

#include "zqbus/zqbus_service.h"

namespace zq {

/// Runs `handler` with a call. An exception is caught and logged, and the call fails.
void runHandler(const ZQBusService::Handler& handler, const std::shared_ptr<ZQBusCall>& call);

}  // namespace zq
