// service: the service itself, and the development service's control interface, the one place of
// the tool that speaks to the bus directly.
#include <csignal>
#include <memory>

#include "platform/text/hex.h"
#include "tools/perixctl/command.h"
#include "tools/perixctl/command_error.h"
#include "tools/perixctl/embedded_world.h"
#include "zqbus/zqbus.h"

namespace zq::ctl {
namespace {

constexpr const char* kControlService = "perixcontrol";
constexpr int kControlTimeoutMs = 10'000;

using Append = void (*)(ZQBusMessage&, const Arguments&);
using Present = Outcome (*)(Json);

std::shared_ptr<ZQBusProxyInterface> controlInterface() {
  ZQBusSerivceManager* manager = ZQBusSerivceManager::initSync(-1);
  auto control = manager == nullptr ? nullptr
                                    : manager->getServiceProxyInterface(
                                          kControlService, ZQBusSecurityFlags::TrustedPeer, 1);
  if (!control) {
    throw CommandError(ExitCode::NoService,
                       "no control interface: the development service (perix-devservice) does not "
                       "run on this bus");
  }
  return control;
}

std::shared_ptr<ZQBusMessage> askControl(const char* method, Append append,
                                         const Arguments& arguments) {
  const auto control = controlInterface();
  const auto message = control->makeMethodCallMessage(method);
  append(*message, arguments);
  return control->callWithReplyBlocking(message, kControlTimeoutMs);
}

ExitCode codeOf(ZQBusFailure failure) {
  switch (failure) {
    case ZQBusFailure::TimedOut:
      return ExitCode::TimedOut;
    case ZQBusFailure::PeerGone:
    case ZQBusFailure::BusGone:
      return ExitCode::NoService;
    default:
      return ExitCode::Refused;
  }
}

// A command that is one method of the control interface, whose answer is a JSON text.
std::function<Outcome(Run&)> control(const char* method, Present present, Append append) {
  return [=](Run& run) {
    const auto reply = askControl(method, append, run.arguments);
    std::string text;
    reply->readString(text, 0);
    if (reply->failure() != ZQBusFailure::None) {
      throw CommandError(codeOf(reply->failure()), text);
    }
    Json document = Json::parse(text, nullptr, false);
    if (document.is_discarded()) throw CommandError(ExitCode::Refused, "not JSON: " + text);
    return present(std::move(document));
  };
}

void appendNothing(ZQBusMessage& /*message*/, const Arguments& /*arguments*/) {}

void appendEvent(ZQBusMessage& message, const Arguments& arguments) {
  message.appendInt32(arguments.number<int32_t>("DESKTOP-ID"));
  message.appendInt32(arguments.number<int32_t>("KIND"));
  if (!arguments.has("PAYLOAD")) return;
  const auto bytes = fromHex(arguments.text("PAYLOAD")).value_or(std::vector<uint8_t>{});
  message.appendBytes(bytes.data(), static_cast<uint32_t>(bytes.size()));
}

// KEY=VALUE as a line of TOML. Numbers, truth values and what is quoted already stay as they are.
std::string tomlLine(const std::string& pair) {
  const std::size_t equals = pair.find('=');
  const std::string value = pair.substr(equals + 1);
  const bool literal = value.starts_with('"') || value == "true" || value == "false" ||
                       parseNumber<int64_t>(value) || parseNumber<uint64_t>(value);
  return pair.substr(0, equals) + " = " + (literal ? value : Json(value).dump()) + "\n";
}

void appendDevice(ZQBusMessage& message, const Arguments& arguments) {
  std::string table;
  for (const std::string& pair : arguments.texts("KEY=VALUE")) table += tomlLine(pair);
  message.appendString(table);
}

void appendFault(ZQBusMessage& message, const Arguments& arguments) {
  message.appendString(arguments.text("METHOD"));
  message.appendString(arguments.text("KIND"));
  message.appendInt64(arguments.number<int64_t>("VALUE"));
  message.appendInt32(arguments.number<int32_t>("COUNT"));
}

Outcome presentDone(Json document) {
  return {.document = std::move(document), .text = "done\n"};
}

Outcome presentFaults(Json document) {
  return tableOf(
      std::move(document),
      {{"method", "METHOD"}, {"kind", "KIND"}, {"value", "VALUE"}, {"remaining", "REMAINING"}});
}

Outcome presentCalls(Json document) {
  return tableOf(std::move(document),
                 {{"method", "METHOD"}, {"sender", "SENDER"}, {"arguments", "ARGUMENTS"}});
}

Outcome serviceStatus(Run& run) {
  PerixProxy& proxy = run.proxy();
  const std::size_t desktops = proxy.GetVmList().size();
  requireAnswer();
  ZQBusSerivceManager* manager = ZQBusSerivceManager::initSync(-1);
  const bool control = manager != nullptr && manager->isServiceRegistered(kControlService);
  return factsOf({{"running", true}, {"desktops", desktops}, {"controlInterface", control}});
}

// The service is expected to be gone before it can answer.
Outcome crashService(Run& run) {
  const auto reply = askControl("crash", appendNothing, run.arguments);
  if (reply->failure() == ZQBusFailure::PeerGone) return presentDone(Json::object());
  std::string text;
  throw CommandError(ExitCode::Refused, "the service lives: " + reply->readString(text, 0));
}

Outcome runProgram(Run& run) {
  std::unique_ptr<EmbeddedWorld> world;
  if (!run.globals.embedded) world = std::make_unique<EmbeddedWorld>("");
  run.indicator.end();
  ChildProcess::Options options;
  options.arguments = run.arguments.texts("PROGRAM");
  options.inheritInput = true;
  ChildProcess program(options);
  // The terminal interrupts the program too; what it leaves behind is taken down here.
  std::signal(SIGINT, SIG_IGN);
  return {.written = true, .exitCode = program.wait()};
}

const Argument kDesktopId{"DESKTOP-ID", ArgumentKind::Int32, "The desktop's integer id"};
const Argument kKind{"KIND", ArgumentKind::Int32, "The kind of event"};
const Argument kPayload{"PAYLOAD", ArgumentKind::Hex, "The record, in hex", Presence::Optional};

std::vector<Command> worldCommands() {
  return {
      {"service plug",
       {{"KEY=VALUE", ArgumentKind::KeyValue, "What the device is, as in a scenario: type=camera",
         Presence::Repeated}},
       "Plug a new device",
       control("plug", factsOf, appendDevice)},
      {"service unplug",
       {{"NUMBER", ArgumentKind::UInt16, "The device's number"}},
       "Unplug a device",
       control("unplug", presentDone,
               [](ZQBusMessage& message, const Arguments& arguments) {
                 message.appendUInt16(arguments.number<uint16_t>("NUMBER"));
               })},
      {"service print",
       {{"NUMBER", ArgumentKind::UInt16, "The printer's number"},
        {"DOCUMENT", ArgumentKind::Text, "The document's title"}},
       "Print a document",
       control("print", presentDone,
               [](ZQBusMessage& message, const Arguments& arguments) {
                 message.appendUInt16(arguments.number<uint16_t>("NUMBER"));
                 message.appendString(arguments.text("DOCUMENT"));
               })},
      {"service event",
       {kDesktopId, kKind, kPayload},
       "Send an event as it stands",
       control("sendEvent", presentDone, appendEvent)},
      {"service broadcast",
       {kDesktopId, kKind, kPayload},
       "Send the mount broadcast as it stands",
       control("sendBroadcast", presentDone, appendEvent)},
      {"service state", {}, "Show the whole model", control("state", documentOf, appendNothing)},
      {"service reload",
       {},
       "Load the scenario anew",
       control("reset", presentDone, appendNothing)},
  };
}

std::vector<Command> faultCommands() {
  return {
      {"service fault set",
       {{"METHOD", ArgumentKind::Name, "The bus method, or * for all"},
        {"KIND", ArgumentKind::Name, "delay, late, error, wrong-type, drop and others"},
        {"VALUE", ArgumentKind::Int64, "Milliseconds, bytes or a number, as the kind has it",
         Presence::Optional},
        {"COUNT", ArgumentKind::Int32, "How many calls; all of them without it",
         Presence::Optional}},
       "Let calls of a method go wrong",
       control("setFault", presentFaults, appendFault)},
      {"service fault clear",
       {},
       "Let all calls go right again",
       control("clearFaults", presentDone, appendNothing)},
      {"service fault list",
       {},
       "List the faults",
       control("listFaults", presentFaults, appendNothing)},
      {"service calls",
       {},
       "List the calls that the service received",
       control("listCalls", presentCalls, appendNothing)},
      {"service clear-calls", {}, "Forget them", control("clearCalls", presentDone, appendNothing)},
      {"service crash", {}, "Have the service kill itself", crashService},
      {"service stop", {}, "Have the service end", control("stop", presentDone, appendNothing)},
  };
}

}  // namespace

std::vector<Command> serviceCommands() {
  const std::vector<Command> ofEveryService = {
      {"service status", {}, "Show whether the service runs", serviceStatus},
      {"service reset", {}, "Ask the service to reset itself", status([](Run& run) {
         return run.proxy().ResetService();
       })},
      {"service run",
       {{"PROGRAM", ArgumentKind::Text, "The program and its arguments, behind --",
         Presence::Repeated}},
       "Run a program with a private bus and a development service of its own",
       runProgram},
  };
  return joined({ofEveryService, worldCommands(), faultCommands()});
}

}  // namespace zq::ctl
