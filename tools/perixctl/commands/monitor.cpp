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

#include "platform/text/escape.h"
#include "tools/perixctl/command.h"
#include "tools/perixctl/command_error.h"
#include "tools/perixctl/event_feed.h"
#include "tools/perixctl/record_documents.h"
#include "tools/perixctl/words.h"

namespace zq::ctl {
namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds kRetryInterval{1000};

constexpr std::array kSources = {
    Word{EventSource::Device, "device"},
    Word{EventSource::Printer, "printer"},
    Word{EventSource::Configuration, "configuration"},
    Word{EventSource::Command, "command"},
    Word{EventSource::Joystick, "joystick"},
    Word{EventSource::Desktop, "desktop"},
    Word{EventSource::Service, "service"},
};

// What the codes mean, as far as they are known.
struct CodeWord {
  EventSource source;
  uint16_t code;
  const char* word;
};
constexpr std::array kCodeWords = {
    CodeWord{EventSource::Device, 4, "changed"},
    CodeWord{EventSource::Device, 5, "connection refused"},
    CodeWord{EventSource::Device, 6, "arrived"},
    CodeWord{EventSource::Device, 7, "removed"},
    CodeWord{EventSource::Device, 10, "wants configuration"},
    CodeWord{EventSource::Device, 64, "mounted"},
    CodeWord{EventSource::Device, 65, "unmounted"},
    CodeWord{EventSource::Printer, 1, "changed"},
    CodeWord{EventSource::Configuration, 11, "connected"},
    CodeWord{EventSource::Configuration, 12, "ignored"},
    CodeWord{EventSource::Configuration, 13, "failed"},
    CodeWord{EventSource::Configuration, 14, "disk command"},
    CodeWord{EventSource::Configuration, 16, "joystick"},
    CodeWord{EventSource::Command, 66, "answered"},
    CodeWord{EventSource::Desktop, SERVICE_DIED, "service died"},
    CodeWord{EventSource::Service, SERVICE_DIED, "died"},
};

// Of a record's members, those that a line for people shows; JSON has them all.
constexpr std::array kMembersForPeople = {"devNumber", "devNum",    "name", "state",  "desktop",
                                          "sourceId",  "isSuccess", "code", "result", "text"};

std::string dumped(const Json& value) {
  return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

const char* wordOf(EventSource source) {
  return wordFor(kSources, source, "unknown");
}

const char* wordOf(EventSource source, uint16_t code) {
  const auto found = std::find_if(kCodeWords.begin(), kCodeWords.end(), [=](const CodeWord& row) {
    return row.source == source && row.code == code;
  });
  return found == kCodeWords.end() ? "event" : found->word;
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
  bool mustSubscribe() { return !subscribed_ || feed_.serviceDied(); }
  void signalReady();
  void printEvents();
  void print(const FeedEvent& event);
  void write(const Json& document, const std::string& text);
  void learnDesktop(const FeedEvent& event);
  bool finished() const { return interrupted_ || lines_ >= limit_ || Clock::now() >= end_; }
  void wait();

  Run& run_;
  PerixProxy* proxy_ = nullptr;
  EventFeed& feed_ = EventFeed::instance();
  OwnedDescriptor ready_;
  OwnedDescriptor interrupts_;
  DesktopNames names_;
  std::set<uint32_t> asked_;  ///< ids that the service was asked for since it was subscribed to
  uint64_t lines_ = 0;
  uint64_t limit_;
  Clock::time_point end_ = Clock::time_point::max();
  bool subscribed_ = false;
  bool interrupted_ = false;
};

// Taken by the descriptor instead of a handler. All threads that are started later inherit this.
OwnedDescriptor interruptDescriptor() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
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
      interrupts_(interruptDescriptor()),
      limit_(run.arguments.number<uint64_t>("--count", UINT64_MAX)) {
  if (run.arguments.has("--for")) {
    end_ = Clock::now() + std::chrono::seconds(run.arguments.number<uint32_t>("--for"));
  }
}

void Monitor::run() {
  proxy_ = &run_.proxy();
  subscribed_ = feed_.subscribe(*proxy_);
  if (!subscribed_) requireAnswer();
  names_.learn(*proxy_);
  signalReady();
  while (!finished()) {
    wait();
    printEvents();
    if (mustSubscribe() && !finished()) subscribe();
  }
}

// After a death. Tried again each second until the service answers.
void Monitor::subscribe() {
  subscribed_ = feed_.subscribe(*PerixProxy::getInstance());
  if (!subscribed_) return;
  names_.learn(*proxy_);
  asked_.clear();
  printEvents();  // what the death still told stands before its end
  if (finished()) return;
  const auto now = std::chrono::system_clock::now();
  write({{"time", isoTime(now)}, {"event", "service"}, {"word", "returned"}},
        clockTime(now) + "  service        returned; subscribed again");
}

void Monitor::signalReady() {
  if (!ready_) return;
  [[maybe_unused]] const ssize_t written = ::write(ready_.get(), "ready\n", 6);
  ready_.reset();
}

void Monitor::wait() {
  std::array<pollfd, 2> sources = {pollfd{feed_.descriptor(), POLLIN, 0},
                                   pollfd{interrupts_.get(), POLLIN, 0}};
  int timeout = mustSubscribe() ? static_cast<int>(kRetryInterval.count()) : -1;
  if (end_ != Clock::time_point::max()) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end_ - Clock::now()).count();
    const int bound = static_cast<int>(std::clamp<int64_t>(left, 0, INT32_MAX));
    timeout = timeout < 0 ? bound : std::min(timeout, bound);
  }
  poll(sources.data(), sources.size(), timeout);
  interrupted_ = (sources[1].revents & POLLIN) != 0;
}

void Monitor::printEvents() {
  for (const FeedEvent& event : feed_.take()) {
    if (lines_ >= limit_) return;
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
  const char* source = wordOf(event.source);
  const char* word = wordOf(event.source, event.code);
  const Json record = std::visit(RecordDocument{names_}, event.record);
  Json document = {
      {"time", isoTime(event.time)}, {"event", source}, {"code", event.code}, {"word", word}};
  if (!event.desktop.empty()) document["desktop"] = event.desktop;
  if (!record.is_null()) document["record"] = record;

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
       {{"--count", ArgumentKind::UInt64, "End after that many lines", Presence::Optional},
        {"--for", ArgumentKind::UInt32, "End after that many seconds", Presence::Optional},
        {"--ready-fd", ArgumentKind::UInt16,
         "Write a line to this descriptor once events are heard", Presence::Optional}},
       "Show events as they arrive, until interrupted",
       runMonitor},
  };
}

}  // namespace zq::ctl
