#include "operations.h"

#include "perix/service_values.h"

namespace zq::console {
namespace {

constexpr uint16_t kOwnType = 0;  // a decision about a new device that does not name its type

std::string text(const QString& words) {
  return words.toStdString();
}

unsigned short number(const Request& request) {
  return static_cast<unsigned short>(request.item.key.toUInt());
}

VmInfo desktopInfo(const Request& request) {
  VmInfo info{};
  info.vmId = text(request.item.key);
  return info;
}

struct Operation {
  ItemKind kind;
  Verb verb;
  const char* title;    // stands before the item's name
  const char* between;  // stands before the desktop's name; null when the title has none
  int (*run)(PerixProxy& proxy, const Request& request);
};
const Operation kOperations[] = {
    {ItemKind::Desktop, Verb::Connect, "Open session of ", nullptr,
     [](PerixProxy& proxy, const Request& request) {
       return proxy.ConnectVm(desktopInfo(request));
     }},
    {ItemKind::Desktop, Verb::Disconnect, "End session of ", nullptr,
     [](PerixProxy& proxy, const Request& request) {
       return proxy.DisconnectVm(text(request.item.key));
     }},
    {ItemKind::Device, Verb::Connect, "Connect ", " to ",
     [](PerixProxy& proxy, const Request& request) {
       return proxy.ConnectDevice(text(request.desktop), number(request));
     }},
    {ItemKind::Device, Verb::Disconnect, "Disconnect ", " from ",
     [](PerixProxy& proxy, const Request& request) {
       return proxy.DisconnectDevice(text(request.desktop), number(request));
     }},
    {ItemKind::Device, Verb::Configure, "Configure ", " for ",
     [](PerixProxy& proxy, const Request& request) {
       const unsigned short autoConnect = request.always ? 1 : 0;
       return proxy.ConfigNewDeviceAsConnect(text(request.desktop), request.item.sourceId, kOwnType,
                                             autoConnect, 1);
     }},
    {ItemKind::Device, Verb::Ignore, "Ignore ", nullptr,
     [](PerixProxy& proxy, const Request& request) {
       const unsigned short announce = request.always ? 0 : 1;
       return proxy.ConfigNewDeviceAsIgnore(request.item.sourceId, kOwnType, 0, announce);
     }},
    {ItemKind::Printer, Verb::Connect, "Connect ", " to ",
     [](PerixProxy& proxy, const Request& request) {
       return proxy.ConnectPrinter(text(request.desktop), number(request));
     }},
    {ItemKind::Printer, Verb::Disconnect, "Disconnect ", " from ",
     [](PerixProxy& proxy, const Request& request) {
       return proxy.DisconnectPrinter(text(request.desktop), number(request));
     }},
};

const Operation& operationOf(const Request& request) {
  for (const Operation& row : kOperations) {
    if (row.kind == request.kind && row.verb == request.verb) return row;
  }
  return kOperations[0];
}

struct Introduction {
  PerixFailure failure;
  const char* words;  // stand before the words of the report
};
constexpr Introduction kIntroductions[] = {
    {PerixFailure::TimedOut, "no answer: "},
    {PerixFailure::Refused, "the service answered with an error: "},
    {PerixFailure::Unreadable, "the answer cannot be read: "},
    {PerixFailure::NotAsked, "the service was not asked: "},
    {PerixFailure::NoMemory, "the library gave up: "},
};

QString refusal(const QString& reason, int result) {
  const QString colon = reason.isEmpty() ? QString() : ": ";
  return "the service refused" + colon + reason + QString(" (result %1)").arg(result);
}

}  // namespace

QString titleOf(const Request& request) {
  const Operation& operation = operationOf(request);
  const QString title = operation.title + isolated(request.item.name);
  return operation.between == nullptr ? title
                                      : title + operation.between + isolated(request.desktop);
}

int perform(PerixProxy& proxy, const Request& request) {
  return operationOf(request).run(proxy, request);
}

QString successText(Verb verb) {
  return verb == Verb::Configure || verb == Verb::Ignore ? "accepted" : "done";
}

QString failureText(const PerixFailureReport& report) {
  QString reason = QString::fromStdString(report.text);
  for (const Introduction& row : kIntroductions) {
    if (row.failure == report.failure) return row.words + reason;
  }
  return reason;
}

QString refusalText(int result) {
  return refusal(TextOf(static_cast<ServiceResult>(result)), result);
}

QString refusalText(const QString& reason) {
  const char* known = nullptr;
  for (int result = 1; (known = TextOf(static_cast<ServiceResult>(result))) != nullptr; ++result) {
    if (reason == known) return refusal(reason, result);
  }
  return reason;
}

}  // namespace zq::console
