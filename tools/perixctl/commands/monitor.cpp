// monitor: events as they arrive.
#include <fcntl.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <set>

#include "perix/events.h"
#include "platform/text/escape.h"
#include "tools/perixctl/bus.h"
#include "tools/perixctl/command.h"
#include "tools/perixctl/command_error.h"
#include "tools/perixctl/event_feed.h"
#include "tools/perixctl/record_documents.h"
#include "tools/perixctl/service_words.h"

namespace zq::ctl {
namespace {

using Clock = std::chrono::steady_clock;
// Between two looks whether the service, or the bus, is there again.
constexpr std::chrono::milliseconds kRetryInterval{1000};

// News of the bus come from no callback.
constexpr int64_t kBus = -1;

constexpr std::array kSources = {
    Word{EventSource::Device, "device"},
    Word{EventSource::Printer, "printer"},
    Word{EventSource::Configuration, "configuration"},
    Word{EventSource::Command, "command"},
    Word{EventSource::Joystick, "joystick"},
    Word{EventSource::Desktop, "desktop"},
    Word{EventSource::Service, "service"},
    Word{kBus, "bus"},
};

constexpr const char* kReturned = "returned";
constexpr const char* kGone = "gone";

// The words with which a monitor may end. News that are not events have no number.
Words eventWords() {
  static const std::vector<Word> words = [] {
    std::vector<Word> all(kEventKinds.begin(), kEventKinds.end());
    for (const char* news : {"service died", "died", kReturned, kGone}) all.emplace_back(-1, news);
    return all;
  }();
  return words;
}

// The members of records that a line for people shows; JSON has them all.
constexpr std::array kMembersForPeople = {"devNumber", "devNum",    "name", "state",  "desktop",
                                          "sourceId",  "isSuccess", "code", "result", "text"};

std::string dumped(const Json& value) {
  return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

const char* sourceText(EventSource source) {
  return wordFor(kSources, source, "unknown");
}

// Desktop callbacks have a code of their own, joystick callbacks have numbers, the others have the
// event's kind.
const char* codeText(EventSource source, uint16_t code) {
  const char* text = nullptr;
  switch (source) {
    case EventSource::Desktop:
      text = code == SERVICE_DIED ? "service died" : nullptr;
      break;
    case EventSource::Service:
      text = code == SERVICE_DIED ? "died" : nullptr;
      break;
    case EventSource::Joystick:
      break;
    case EventSource::Device:
    case EventSource::Printer:
    case EventSource::Configuration:
    case EventSource::Command:
      text = TextOf(static_cast<EventKind>(code));
  }
  return text != nullptr ? text : "event";
}

std::string timeText(std::chrono::system_clock::time_point time, const char* format,
                     std::tm* (*calendar)(const std::time_t*, std::tm*)) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
  const auto milliseconds =
      std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count() % 1000;
  std::tm parts{};
  calendar(&seconds, &parts);
  char text[64];
  const std::size_t length = std::strftime(text, sizeof(text), format, &parts);
  std::snprintf(text + length, sizeof(text) - length, ".%03d", static_cast<int>(milliseconds));
  return text;
}

std::string clockTime(std::chrono::system_clock::time_point time) {
  return timeText(time, "%H:%M:%S", localtime_r);
}

std::string isoTime(std::chrono::system_clock::time_point time) {
  return timeText(time, "%Y-%m-%dT%H:%M:%S", gmtime_r) + "Z";
}

// Turns records into documents.
struct RecordDocument {
  const DesktopNames& names;

  Json operator()(std::monostate /*none*/) const { return Json(); }
  Json operator()(const CommonDevice& device) const { return deviceDocument(device, names); }
  Json operator()(const PrinterDevice& printer) const { return printerDocument(printer, names); }
  Json operator()(const _ConfigNewDeviceResult& result) const { return resultDocument(result); }
  Json operator()(const CmdResponse& response) const { return commandDocument(response); }
};

// The integer id of the desktop that a record names, 0 when it names none.
struct RecordDesktop {
  uint32_t operator()(const CommonDevice& device) const { return device.vmId; }
  uint32_t operator()(const PrinterDevice& printer) const {
    return static_cast<uint32_t>(printer.vmId);
  }
  template <typename Other>
  uint32_t operator()(const Other& /*record*/) const {
    return 0;
  }
};

// One run of the command.
class Monitor {
 public:
  explicit Monitor(Run& run);
  void run();

 private:
  void subscribe();
  bool mustSubscribe() { return !subscribed_ || feed_.mustSubscribe(); }
  void signalReady();
  void lookForBus();
  bool isWanted(const char* source, const Json& document) const;
  void printEvents();
  void print(const FeedEvent& event);
  void tell(const char* source, const char* word, const std::string& explanation);
  void write(const Json& document, const std::string& text);
  void learnDesktop(const FeedEvent& event);
  bool finished() const { return interrupted_ || met_ || lines_ >= limit_ || Clock::now() >= end_; }
  void wait();

  Run& run_;
  PerixProxy* proxy_ = nullptr;
  EventFeed& feed_ = EventFeed::instance();
  OwnedDescriptor ready_;
  OwnedDescriptor interrupts_;
  DesktopNames names_;
  std::set<uint32_t> asked_;  ///< ids that the service was asked for since it was subscribed to
  std::vector<std::string> only_;      ///< sources; empty for all
  std::string desktop_;                ///< of which events are shown; empty for all
  std::string until_;                  ///< the word of the last event; empty for none
  std::optional<uint16_t> untilCode_;  ///< its code, when a number was given
  uint64_t lines_ = 0;
  uint64_t limit_;
  Clock::time_point end_ = Clock::time_point::max();
  Clock::time_point nextLook_ = Clock::now() + kRetryInterval;
  bool busIsThere_ = true;
  bool subscribed_ = false;
  bool interrupted_ = false;
  bool met_ = false;  ///< the event that was waited for has come
};

// The signals that interrupt the command, which are blocked already.
OwnedDescriptor interruptDescriptor(EarlyEnd& earlyEnd) {
  earlyEnd.leaveSignals();
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, number);
  return OwnedDescriptor(signalfd(-1, &signals, SFD_CLOEXEC));
}

// The descriptor to tell that events are heard. Looked up before the library opens any of its own,
// which might be given the number of one that the caller forgot to open.
OwnedDescriptor readyDescriptor(const Arguments& arguments) {
  if (!arguments.has("--ready-fd")) return {};
  const int descriptor = arguments.number<uint16_t>("--ready-fd");
  const int flags = fcntl(descriptor, F_GETFL);
  if (flags < 0 || (flags & O_ACCMODE) == O_RDONLY) {
    throw CommandError(ExitCode::Usage, "descriptor " + std::to_string(descriptor) +
                                            " given with --ready-fd cannot be written");
  }
  return OwnedDescriptor(descriptor);
}

Monitor::Monitor(Run& run)
    : run_(run),
      ready_(readyDescriptor(run.arguments)),
      interrupts_(interruptDescriptor(run.earlyEnd)),
      only_(splitAtCommas(run.arguments.text("--only"))),
      desktop_(run.arguments.text("--desktop")),
      until_(run.arguments.text("--until")),
      untilCode_(parseNumber<uint16_t>(until_)),
      limit_(run.arguments.number<uint64_t>("--count", UINT64_MAX)) {
  if (run.arguments.has("--for")) {
    end_ = Clock::now() + std::chrono::seconds(run.arguments.number<uint32_t>("--for"));
  }
}

void Monitor::run() {
  run_.terminal.requireWritable();
  proxy_ = &run_.proxy();
  subscribed_ = feed_.subscribe(*proxy_);
  if (!subscribed_) requireAnswer();
  names_.learn(*proxy_);
  if (run_.terminal.isInteractive() && !run_.globals.json && !run_.globals.quiet) {
    run_.terminal.write("waiting for events; Ctrl-C ends\n");
  }
  signalReady();
  while (!finished()) {
    wait();
    printEvents();
    if (finished()) return;
    lookForBus();
    if (mustSubscribe()) subscribe();
  }
}

// After a death. Tried again each second until the service answers.
void Monitor::subscribe() {
  subscribed_ = feed_.subscribe(*PerixProxy::getInstance());
  if (!subscribed_) return;
  names_.learn(*proxy_);
  asked_.clear();
  printEvents();  // the events of the death stand before its end
  if (!finished()) tell("service", kReturned, "returned; subscribed again");
}

// Calls and events on a direct line go on without the bus, so nothing else tells of its loss.
void Monitor::lookForBus() {
  if (Clock::now() < nextLook_) return;
  nextLook_ = Clock::now() + kRetryInterval;
  if (busIsThere_ == busIsThere()) return;
  busIsThere_ = !busIsThere_;
  tell("bus", busIsThere_ ? kReturned : kGone, busIsThere_ ? kReturned : kGone);
}

void Monitor::tell(const char* source, const char* word, const std::string& explanation) {
  const auto now = std::chrono::system_clock::now();
  char head[64];
  std::snprintf(head, sizeof(head), "%s  %-13s  ", clockTime(now).c_str(), source);
  const Json document = {{"time", isoTime(now)}, {"event", source}, {"word", word}};
  if (!isWanted(source, document)) return;
  met_ = until_ == word;
  write(document, head + explanation);
}

void Monitor::signalReady() {
  if (!ready_) return;
  [[maybe_unused]] const ssize_t written = ::write(ready_.get(), "ready\n", 6);
  ready_.reset();
}

void Monitor::wait() {
  std::array<pollfd, 3> sources = {pollfd{feed_.descriptor(), POLLIN, 0},
                                   pollfd{interrupts_.get(), POLLIN, 0},
                                   pollfd{run_.terminal.descriptor(), 0, 0}};
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(std::min(end_, nextLook_) - Clock::now());
  poll(sources.data(), sources.size(), static_cast<int>(std::max<int64_t>(left.count(), 0)));
  interrupted_ = (sources[1].revents & POLLIN) != 0;
  if ((sources[2].revents & POLLERR) != 0) {
    throw CommandError(ExitCode::Refused, "the output cannot be written: its reader is gone");
  }
}

void Monitor::printEvents() {
  for (const FeedEvent& event : feed_.take()) {
    if (met_ || lines_ >= limit_) return;
    learnDesktop(event);
    print(event);
  }
}

// Desktops may come after the subscription.
void Monitor::learnDesktop(const FeedEvent& event) {
  const uint32_t id = std::visit(RecordDesktop{}, event.record);
  if (id == 0 || names_.knows(id) || !asked_.insert(id).second) return;
  names_.learn(*proxy_);
}

void Monitor::print(const FeedEvent& event) {
  const char* source = sourceText(event.source);
  const char* word = codeText(event.source, event.code);
  const Json record = std::visit(RecordDocument{names_}, event.record);
  Json document = {
      {"time", isoTime(event.time)}, {"event", source}, {"code", event.code}, {"word", word}};
  if (!event.desktop.empty()) document["desktop"] = event.desktop;
  if (!record.is_null()) document["record"] = record;

  if (!isWanted(source, document)) return;
  met_ = until_ == word || untilCode_ == event.code;
  char head[64];
  std::snprintf(head, sizeof(head), "%s  %-13s  %2d %s", clockTime(event.time).c_str(), source,
                event.code, word);
  std::string text = head;
  if (!event.desktop.empty()) text += ": " + event.desktop;
  for (const char* member : kMembersForPeople) {
    const Json value = record.is_object() ? record.value(member, Json()) : Json();
    if (!value.is_null()) text += std::string("  ") + member + "=" + dumped(value);
  }
  write(document, text);
}

// Events of the service and of the bus are of all desktops.
bool Monitor::isWanted(const char* source, const Json& document) const {
  if (!only_.empty() && std::find(only_.begin(), only_.end(), source) == only_.end()) return false;
  if (desktop_.empty() || source == std::string_view("service") ||
      source == std::string_view("bus")) {
    return true;
  }
  const Json record = document.value("record", Json::object());
  return document.value("desktop", "") == desktop_ ||
         record.value("desktop", Json()) == Json(desktop_);
}

void Monitor::write(const Json& document, const std::string& text) {
  run_.terminal.write(run_.globals.json ? renderJson(document) : escaped(text) + "\n");
  ++lines_;
}

Outcome runMonitor(Run& run) {
  run.indicator.end();
  Monitor(run).run();
  return {.written = true};
}

}  // namespace

std::vector<Command> monitorCommands() {
  return {
      {"monitor",
       {{"--only", ArgumentKind::Choice, "Show the events of these sources", Presence::Optional,
         kSources, "device,printer"},
        {"--desktop", ArgumentKind::Desktop, "Show the events of this desktop", Presence::Optional},
        {"--count", ArgumentKind::UInt64, "End after that many lines", Presence::Optional},
        {"--until", ArgumentKind::Word, "End after the first event of this kind",
         Presence::Optional, eventWords()},
        {"--for", ArgumentKind::Seconds, "End after this time", Presence::Optional},
        {"--ready-fd", ArgumentKind::UInt16,
         "Write a line to this descriptor once events are heard", Presence::Optional}},
       "Show events as they arrive, until interrupted",
       runMonitor},
  };
}

}  // namespace zq::ctl
