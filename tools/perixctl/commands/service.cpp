// service: the service itself, and the control interface of the development service.
#include <sys/wait.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <set>
#include <sstream>
#include <system_error>

#include "platform/text/escape.h"
#include "platform/text/hex.h"
#include "platform/text/utf8.h"
#include "tools/perixctl/bus.h"
#include "tools/perixctl/command.h"
#include "tools/perixctl/command_error.h"
#include "tools/perixctl/development_words.h"
#include "tools/perixctl/embedded_world.h"
#include "tools/perixctl/suggestion.h"

namespace zq::ctl {
namespace {

using Taken = ControlArguments (*)(const Arguments&);
using Present = Outcome (*)(Json);

// A command that is one method of the control interface.
std::function<Outcome(Run&)> control(const char* method, Present present, Taken take) {
  return [=](Run& run) { return present(askControl(method, take(run.arguments))); };
}

ControlArguments nothing(const Arguments& /*arguments*/) {
  return {};
}

ControlArguments theEvent(const Arguments& arguments) {
  ControlArguments taken = {arguments.number<int32_t>("DESKTOP-ID"),
                            arguments.number<int32_t>("KIND")};
  if (arguments.has("PAYLOAD")) {
    taken.emplace_back(fromHex(arguments.text("PAYLOAD")).value_or(std::vector<uint8_t>{}));
  }
  return taken;
}

Outcome presentDone(Json document) {
  return doneOf(std::move(document), "done");
}

Outcome presentFaults(Json document) {
  return tableOf(
      std::move(document),
      {{"method", "METHOD"}, {"kind", "KIND"}, {"value", "VALUE"}, {"remaining", "REMAINING"}});
}

// --- Devices -------------------------------------------------------------------------------------

[[noreturn]] void complainAbout(const std::string& word, const std::string& text) {
  throw CommandError(ExitCode::Usage, "'" + word + "': " + text);
}

std::string hexValue(const std::string& pair, const std::string& value) {
  const auto number = parseNumber<uint16_t>(value, 16);
  if (!number) complainAbout(pair, "not one to four hexadecimal digits");
  return std::to_string(*number);
}

std::string numberValue(const std::string& pair, const std::string& value) {
  const auto number = parseNumber<int64_t>(value);
  if (!number) complainAbout(pair, "not a number");
  return std::to_string(*number);
}

// TOML has no integers of that size, so it travels as a text.
std::string sourceIdValue(const std::string& pair, const std::string& value) {
  const auto number = parseNumber<uint64_t>(value);
  if (!number) complainAbout(pair, "not a number from 0 to 2^64-1");
  return *number > INT64_MAX ? Json(std::to_string(*number)).dump() : std::to_string(*number);
}

std::string tomlValue(PlugValue kind, const std::string& pair, const std::string& value) {
  switch (kind) {
    case PlugValue::Hex:
      return hexValue(pair, value);
    case PlugValue::Number:
      return numberValue(pair, value);
    case PlugValue::SourceId:
      return sourceIdValue(pair, value);
    case PlugValue::Switch:
      if (!numberFor(kTruths, value)) complainAbout(pair, "not true or false");
      return value;
    case PlugValue::Text:
      break;
  }
  return Json(value).dump();
}

// KEY=VALUE as one line of TOML.
std::string tomlLine(const std::string& pair) {
  if (!isUtf8(pair)) complainAbout(pair, "not UTF-8");
  const std::size_t equals = pair.find('=');
  const std::string key = pair.substr(0, equals);
  std::vector<std::string> known;
  for (const PlugKey& row : kPlugKeys) {
    if (row.name == key)
      return key + " = " + tomlValue(row.value, pair, pair.substr(equals + 1)) + "\n";
    known.emplace_back(row.name);
  }
  std::string list;
  for (const std::string& name : known) list += (list.empty() ? "" : ", ") + name;
  complainAbout(pair, "unknown key; there are: " + list + didYouMean(key, known));
}

// The service names the lines of TOML ("plug:2:8: ..."), each of which is a word of the command
// line. The first column is that of a mistake of the whole table, as a key that is missing.
std::string inWordsOf(const std::vector<std::string>& pairs, const std::string& complaints) {
  std::string text;
  std::istringstream lines(complaints);
  for (std::string complaint; std::getline(lines, complaint);) {
    unsigned line = 0;
    unsigned column = 0;
    int begin = 0;
    if (!text.empty()) text += "\n";
    if (std::sscanf(complaint.c_str(), "plug:%u:%u: %n", &line, &column, &begin) == 2 &&
        column > 1 && line > 0 && line <= pairs.size()) {
      text += "'" + pairs[line - 1] + "': ";
    }
    text += complaint.substr(static_cast<std::size_t>(begin));
  }
  return text;
}

Outcome plugDevice(Run& run) {
  const std::vector<std::string>& pairs = run.arguments.texts("KEY=VALUE");
  std::string table;
  std::set<std::string> keys;
  for (const std::string& pair : pairs) {
    table += tomlLine(pair);
    if (!keys.insert(pair.substr(0, pair.find('='))).second) complainAbout(pair, "given twice");
  }
  try {
    return factsOf(withIdTexts(askControl("plug", {table})));
  } catch (const CommandError& error) {
    const std::string text = error.what();
    if (!text.starts_with("plug:")) throw;
    throw CommandError(ExitCode::Usage, inWordsOf(pairs, text));
  }
}

Outcome unplugDevice(Run& run) {
  return presentDone(askControl("unplug", {run.deviceNumber()}));
}

Outcome printDocument(Run& run) {
  return presentDone(askControl("print", {run.printerNumber(), run.arguments.text("DOCUMENT")}));
}

// --- Faults and calls ----------------------------------------------------------------------------

ControlArguments theFault(const Arguments& arguments) {
  const std::string kind = arguments.text("KIND");
  for (const FaultKind& row : kFaultKinds) {
    if (row.name == kind && row.needsValue && !arguments.has("VALUE")) {
      throw CommandError(ExitCode::Usage, "'" + kind + "' needs a VALUE: " + row.help);
    }
  }
  return {arguments.text("METHOD"), kind, arguments.number<int64_t>("VALUE"),
          arguments.number<int32_t>("COUNT")};
}

// A block that is a text is shown as such; the service may put a NUL behind it. A record would fill
// the line, so only its first bytes are shown; JSON has more of them.
std::string blockText(const Json& block) {
  constexpr std::size_t kShown = 8;
  const std::string hex = block.value("hex", "");
  const auto bytes = fromHex(hex);
  const std::string size = std::to_string(block.value("size", std::size_t{0})) + " bytes";
  if (!bytes || bytes->empty()) return size;
  std::string text(bytes->begin(), bytes->end());
  if (text.back() == '\0') text.pop_back();
  const bool whole = bytes->size() == block.value("size", std::size_t{0});
  if (whole && !text.empty() && escaped(text) == text) return '"' + text + '"';
  if (bytes->size() <= kShown) return hex;
  return hex.substr(0, 2 * kShown) + "... (" + size + ")";
}

std::string argumentText(const Json& argument) {
  if (!argument.is_object()) return argument.dump(-1, ' ', false, Json::error_handler_t::replace);
  if (argument.contains("more")) return "and " + argument["more"].dump() + " more";
  if (argument.contains("text")) return argument["text"].dump() + "...";
  return blockText(argument);
}

// "[1, 8]", and for a single answer "7".
std::string argumentsText(const Json& arguments, bool answer) {
  if (answer && arguments.size() == 1) return argumentText(arguments[0]);
  std::string text;
  for (const Json& argument : arguments)
    text += (text.empty() ? "" : ", ") + argumentText(argument);
  return "[" + text + "]";
}

std::string answerText(const Json& call) {
  if (call.contains("error")) return "error: " + call["error"].get<std::string>();
  return call.contains("answer") ? argumentsText(call["answer"], true) : "not answered";
}

Outcome listCalls(Run& /*run*/) {
  Json calls = askControl("listCalls", {});
  for (Json& call : calls) {
    call["call"] = call.value("method", "") + " " + argumentsText(call["arguments"], false) +
                   " \u2192 " + answerText(call);
  }
  Outcome outcome =
      tableOf(std::move(calls), {{"time", "TIME"}, {"sender", "SENDER"}, {"call", "CALL"}});
  return outcome;
}

// --- The service itself --------------------------------------------------------------------------

Outcome serviceStatus(Run& run) {
  PerixProxy& proxy = run.proxy();
  const std::size_t desktops = proxy.GetVmList().size();
  requireAnswer();
  return factsOf(
      {{"running", true}, {"desktops", desktops}, {"controlInterface", controlIsThere()}});
}

Outcome crashService(Run& /*run*/) {
  killService();
  return presentDone(Json::object());
}

std::unique_ptr<ChildProcess> startProgram(const std::vector<std::string>& words) try {
  ChildProcess::Options options;
  options.arguments = words;
  options.inheritInput = true;
  return std::make_unique<ChildProcess>(options);
} catch (const std::system_error& error) {
  throw CommandError(ExitCode::CannotRun, error.what());
}

Outcome runProgram(Run& run) {
  std::unique_ptr<EmbeddedWorld> world;
  run.earlyEnd.before(PrivateBus::removeAll);
  if (!run.globals.embedded) world = std::make_unique<EmbeddedWorld>("");
  run.indicator.end();
  const auto program = startProgram(run.arguments.texts("PROGRAM"));
  run.earlyEnd.passSignalsTo(program->pid());
  // Its number stays its own until it is reaped below, when no signal is passed on any more.
  siginfo_t end;
  while (waitid(P_PID, static_cast<id_t>(program->pid()), &end, WEXITED | WNOWAIT) != 0 &&
         errno == EINTR) {
  }
  run.earlyEnd.leaveSignals();
  return {.written = true, .exitCode = program->wait()};
}

const Argument kDesktopId{"DESKTOP-ID", ArgumentKind::Int32, "The desktop's integer id"};
const Argument kEventKind{.name = "KIND",
                          .kind = ArgumentKind::Int32,
                          .help = "The kind of event, as monitor calls it",
                          .words = kEventKinds};
const Argument kPayload{"PAYLOAD", ArgumentKind::Hex, "The record, in hex", Presence::Optional};

std::vector<Command> worldCommands() {
  return {
      {"service plug",
       {{"KEY=VALUE", ArgumentKind::PlugKey, "A key of the device, as in a scenario: type=camera",
         Presence::Repeated}},
       "Plug a new device",
       plugDevice},
      {"service unplug", {deviceArgument()}, "Unplug a device", unplugDevice},
      {"service print",
       {printerArgument(), {"DOCUMENT", ArgumentKind::Text, "The document's title"}},
       "Print a document",
       printDocument},
      {"service event",
       {kDesktopId, kEventKind, kPayload},
       "Send an event as it stands",
       control("sendEvent", presentDone, theEvent)},
      {"service broadcast",
       {kDesktopId, kEventKind, kPayload},
       "Send the mount broadcast as it stands",
       control("sendBroadcast", presentDone, theEvent)},
      {"service state",
       {},
       "Show the whole model",
       control(
           "state", [](Json document) { return documentOf(withIdTexts(std::move(document))); },
           nothing)},
      {"service reload", {}, "Load the scenario anew", control("reset", presentDone, nothing)},
  };
}

std::vector<Command> faultCommands() {
  return {
      {"service fault set",
       {{"METHOD", ArgumentKind::FaultMethod, "The bus method, or * for all"},
        {"KIND", ArgumentKind::FaultKind, "delay, late, error, wrong-type, drop and others"},
        {"VALUE", ArgumentKind::Int64, "Milliseconds, bytes or a number, as the kind has it",
         Presence::Optional},
        {"COUNT", ArgumentKind::Int32, "The number of calls; all of them without it",
         Presence::Optional}},
       "Let calls of a method go wrong",
       control("setFault", presentFaults, theFault)},
      {"service fault clear",
       {},
       "Let all calls go right again",
       control("clearFaults", presentDone, nothing)},
      {"service fault list", {}, "List the faults", control("listFaults", presentFaults, nothing)},
      {"service calls", {}, "List the calls that the service received", listCalls},
      {"service clear-calls",
       {},
       "Forget the calls that were received",
       control("clearCalls", presentDone, nothing)},
      {"service crash", {}, "Have the service kill itself", crashService},
      {"service stop", {}, "Have the service end", control("stop", presentDone, nothing)},
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
       {{"PROGRAM",
         ArgumentKind::Text,
         "The program and its arguments, behind --",
         Presence::Repeated,
         {},
         "-- perixctl device list"}},
       "Run a program with a private bus and a development service of its own",
       runProgram},
  };
  return joined({ofEveryService, worldCommands(), faultCommands()});
}

}  // namespace zq::ctl
