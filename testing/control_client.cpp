#include "testing/control_client.h"

#include "perix/test_service.h"
#include "zqbus/zqbus.h"

namespace zq {

std::string askControl(const std::string& method, const ZQBusMessage& arguments,
                       std::chrono::milliseconds timeout) {
  const ZQBusTimeLimit limit(timeout);
  ZQBusSerivceManager* const manager =
      ZQBusSerivceManager::initSync(static_cast<int>(timeout.count()));
  const auto control = manager == nullptr ? nullptr
                                          : manager->getServiceProxyInterface(
                                                "perixcontrol", ZQBusSecurityFlags::TrustedPeer, 1);
  if (control == nullptr) throw PerixTestError(method + ": the service is not on its bus");
  const auto call = control->makeMethodCallMessage(method);
  for (const ZQBusArgument& argument : arguments.arguments()) call->append(argument);
  const auto reply = control->callWithReplyBlocking(call, static_cast<int>(timeout.count()));
  std::string answer;
  reply->readString(answer, 0);
  if (reply->type() != 2) throw PerixTestError(method + ": " + answer);
  return answer;
}

}  // namespace zq
