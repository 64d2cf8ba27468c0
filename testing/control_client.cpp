#include "testing/control_client.h"

#include <algorithm>
#include <limits>
#include <memory>

#include "perix/test_service.h"
#include "zqbus/zqbus.h"

namespace zq {
namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;
// A wait of more than 24 days ends after 24 days.
constexpr Milliseconds kLongest{std::numeric_limits<int>::max()};

int leftUntil(Clock::time_point end) {
  const auto left = std::chrono::ceil<Milliseconds>(end - Clock::now());
  return static_cast<int>(std::max(left, Milliseconds::zero()).count());
}

std::shared_ptr<ZQBusProxyInterface> findControl(int timeoutMs) {
  ZQBusSerivceManager* const manager = ZQBusSerivceManager::initSync(timeoutMs);
  if (manager == nullptr) return nullptr;
  return manager->getServiceProxyInterface("perixcontrol", ZQBusSecurityFlags::TrustedPeer, 1);
}

}  // namespace

std::string askControl(const std::string& method, const ZQBusMessage& arguments,
                       Milliseconds timeout) {
  const Milliseconds wait = std::clamp(timeout, Milliseconds(1), kLongest);
  const auto end = Clock::now() + wait;
  const ZQBusTimeLimit limit(wait);
  std::string answer = "the service is not on its bus";
  if (const auto control = findControl(leftUntil(end))) {
    const auto call = control->makeMethodCallMessage(method);
    for (const ZQBusArgument& argument : arguments.arguments()) call->append(argument);
    const auto reply = control->callWithReplyBlocking(call, leftUntil(end));
    reply->readString(answer, 0);
    if (reply->type() == 2) return answer;
  }
  // A call may have had a part of the time alone.
  if (leftUntil(end) == 0) answer = "no answer within " + std::to_string(wait.count()) + " ms";
  throw PerixTestError(method + ": " + answer);
}

bool isServiceOnBus() {
  const ZQBusTimeLimit limit(std::chrono::seconds(10));
  ZQBusSerivceManager* const manager = ZQBusSerivceManager::initSync(-1);
  return manager != nullptr && manager->isServiceRegistered("perix") &&
         manager->isServiceRegistered("perixcontrol");
}

}  // namespace zq
