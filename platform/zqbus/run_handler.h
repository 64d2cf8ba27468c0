// Running a service's handler.
#pragma once

#include <memory>

#include "zqbus/zqbus_service.h"

namespace zq {

/// Runs `handler` with a call. An exception goes no further: it is logged, and the call fails.
void runHandler(const ZQBusService::Handler& handler, const std::shared_ptr<ZQBusCall>& call);

}  // namespace zq
