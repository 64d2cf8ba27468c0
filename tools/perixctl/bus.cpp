#include "tools/perixctl/bus.h"

#include <algorithm>

#include "tools/perixctl/argument.h"
#include "tools/perixctl/command_error.h"
#include "zqbus/zqbus.h"

namespace zq::ctl {
namespace {

constexpr const char* kService = "perix";
constexpr const char* kControlService = "perixcontrol";
constexpr int kControlTimeoutMs = 10'000;
constexpr int kBusTimeoutMs = 1'000;

struct Appender {
  ZQBusMessage& message;

  void operator()(uint16_t number) const { message.appendUInt16(number); }
  void operator()(int32_t number) const { message.appendInt32(number); }
  void operator()(int64_t number) const { message.appendInt64(number); }
  void operator()(const std::string& text) const { message.appendString(text); }
  void operator()(const std::vector<uint8_t>& bytes) const {
    message.appendBytes(bytes.data(), static_cast<uint32_t>(bytes.size()));
  }
};

bool isThere(const char* service) {
  ZQBusSerivceManager* manager = ZQBusSerivceManager::initSync(kBusTimeoutMs);
  return manager != nullptr && manager->isServiceRegistered(service);
}

std::shared_ptr<ZQBusProxyInterface> controlInterface() {
  ZQBusSerivceManager* manager = ZQBusSerivceManager::initSync(-1);
  auto control = manager == nullptr ? nullptr
                                    : manager->getServiceProxyInterface(
                                          kControlService, ZQBusSecurityFlags::TrustedPeer, 1);
  if (!control) {
    throw CommandError(ExitCode::NoService,
                       "no control interface: the development service (perix-devservice) does not "
                       "run on this bus (" +
                           std::string(lastZQBusProblem().text) + ")");
  }
  return control;
}

std::shared_ptr<ZQBusMessage> replyOf(const char* method, const ControlArguments& arguments) {
  const auto control = controlInterface();
  const auto message = control->makeMethodCallMessage(method);
  for (const ControlArgument& argument : arguments) std::visit(Appender{*message}, argument);
  return control->callWithReplyBlocking(message, kControlTimeoutMs);
}

[[noreturn]] void throwFailure(const ZQBusMessage& reply) {
  std::string text;
  reply.readString(text, 0);
  switch (reply.failure()) {
    case ZQBusFailure::TimedOut:
      throw CommandError(ExitCode::TimedOut, text);
    case ZQBusFailure::PeerGone:
    case ZQBusFailure::BusGone:
      throw CommandError(ExitCode::NoService, text);
    default:
      throw refusalInWords(text);
  }
}

}  // namespace

bool busIsThere() {
  return ZQBusSerivceManager::initSync(kBusTimeoutMs) != nullptr;
}

bool serviceIsThere() {
  return isThere(kService);
}

bool controlIsThere() {
  return isThere(kControlService);
}

ZQBusInspection inspectBus() {
  return inspectZQBus(kService, std::chrono::seconds(3));
}

std::optional<ZQBusWay> wayToService() {
  ZQBusSerivceManager* manager = ZQBusSerivceManager::initSync(kBusTimeoutMs);
  const auto service = manager == nullptr ? nullptr
                                          : manager->getServiceProxyInterface(
                                                kService, ZQBusSecurityFlags::TrustedPeer, 1);
  if (service == nullptr) return std::nullopt;
  return service->way();
}

Json askControl(const char* method, const ControlArguments& arguments) {
  const auto reply = replyOf(method, arguments);
  if (reply->failure() != ZQBusFailure::None) throwFailure(*reply);
  std::string text;
  reply->readString(text, 0);
  Json document = parsedText(text);
  if (document.is_discarded()) {
    throw CommandError(ExitCode::Refused, "the service's answer is not JSON: " + text);
  }
  return document;
}

std::vector<std::string> faultMethodNames() {
  // Asked for an unknown method, the service names the known ones.
  const auto reply = replyOf("setFault", {std::string(), std::string(), int64_t{0}, int32_t{0}});
  std::string text;
  reply->readString(text, 0);
  std::string names = text.substr(std::min(text.rfind(':'), text.size() - 1) + 1);
  std::erase(names, ' ');
  return splitAtCommas(names);
}

void killService() {
  const auto reply = replyOf("crash", {});
  if (reply->failure() == ZQBusFailure::PeerGone) return;
  std::string text;
  throw CommandError(ExitCode::Refused, "the service lives: " + reply->readString(text, 0));
}

}  // namespace zq::ctl
