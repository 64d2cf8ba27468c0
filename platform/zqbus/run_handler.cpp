#include "run_handler.h"

#include <exception>
#include <string>

#include "bus_log.h"

namespace zq {

void runHandler(const ZQBusService::Handler& handler, const std::shared_ptr<ZQBusCall>& call) {
  try {
    handler(call);
  } catch (const std::exception& error) {
    busLog("the handler of " + call->message().name() + " threw: " + error.what());
    call->fail("internal error");
  } catch (...) {
    busLog("the handler of " + call->message().name() +
           " threw something other than a std::exception");
    call->fail("internal error");
  }
}

}  // namespace zq
