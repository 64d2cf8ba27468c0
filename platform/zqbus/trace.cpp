#include "trace.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <memory>
#include <utility>

#include "bus_log.h"
#include "platform/util/fork_generation.h"
#include "platform/util/mutex.h"
#include "trace_file.h"

namespace zq {
namespace {

using Sink = std::function<void(const ZQBusTraceEntry&)>;

/// Where entries go.
struct Trace {
  Mutex mutex;
  std::shared_ptr<TraceFile> file GUARDED_BY(mutex);
  std::shared_ptr<const Sink> sink GUARDED_BY(mutex);
  Mutex sinkMutex;  // held while a sink runs: one entry at a time
  const int generation = forkGeneration();
  std::atomic<bool> isOn = false;

  void update() REQUIRES(mutex) { isOn = file != nullptr || sink != nullptr; }
};

/// Never destroyed: threads of the library may tell something until the process ends.
Trace& theTrace() {
  static Trace& trace = *new Trace;
  return trace;
}

void startFromEnvironment() {
  const char* file = ::secure_getenv("ZQBUS_TRACE");
  std::string error;
  if (file == nullptr || *file == '\0') return;
  if (!startZQBusTrace(file, error)) busLog("there is no trace: " + error);
}

}  // namespace

bool isTracing() {
  static std::atomic<bool> asked = false;
  if (!asked.load(std::memory_order_relaxed) && !asked.exchange(true)) startFromEnvironment();
  const Trace& trace = theTrace();
  return trace.isOn.load(std::memory_order_relaxed) && trace.generation == forkGeneration();
}

ZQBusTraceEntry beginTraceEntry(ZQBusTraceEntry::Kind kind, const std::string& service) {
  ZQBusTraceEntry entry;
  entry.kind = kind;
  entry.wall = std::chrono::system_clock::now();
  entry.monotonic = std::chrono::steady_clock::now().time_since_epoch();
  entry.process = ::getpid();
  entry.program = program_invocation_short_name;
  entry.service = service;
  return entry;
}

ZQBusMessage withArgumentsOf(const ZQBusMessage& content, ZQBusMessageType type, std::string name) {
  ZQBusMessage message(type, std::move(name));
  message.reserve(content.argCount());
  for (const ZQBusArgument& argument : content.arguments()) message.append(argument);
  return message;
}

// Without memory for an entry the trace lacks it, and the call goes on.
void trace(ZQBusTraceEntry entry) noexcept try {
  if (!isTracing()) return;
  Trace& trace = theTrace();
  std::shared_ptr<TraceFile> file;
  std::shared_ptr<const Sink> sink;
  {
    const MutexLock lock(trace.mutex);
    file = trace.file;
    sink = trace.sink;
  }
  if (file != nullptr) file->add(toJson(entry));
  if (sink == nullptr) return;
  const MutexLock lock(trace.sinkMutex);
  (*sink)(entry);
} catch (const std::exception& problem) {
  busLog(std::string("an entry of the trace is lost: ") + problem.what());
}

bool startZQBusTrace(const std::string& file, std::string& error) try {
  const int descriptor = TraceFile::open(file, error);
  if (descriptor < 0) return false;
  auto opened = std::make_shared<TraceFile>(descriptor);
  Trace& trace = theTrace();
  {
    const MutexLock lock(trace.mutex);
    opened.swap(trace.file);
    trace.update();
  }
  if (opened != nullptr) opened->end();
  static std::atomic<bool> endsWithTheProcess = false;
  if (!endsWithTheProcess.exchange(true)) std::atexit(&stopZQBusTrace);
  return true;
} catch (const std::exception& problem) {
  error = std::string("no thread to write the trace: ") + problem.what();
  return false;
}

void setZQBusTraceSink(std::function<void(const ZQBusTraceEntry&)> sink) {
  auto shared = sink ? std::make_shared<const Sink>(std::move(sink)) : nullptr;
  Trace& trace = theTrace();
  const MutexLock lock(trace.mutex);
  trace.sink.swap(shared);
  trace.update();
}

void stopZQBusTrace() {
  Trace& trace = theTrace();
  if (trace.generation != forkGeneration()) return;
  std::shared_ptr<TraceFile> file;
  std::shared_ptr<const Sink> sink;
  {
    const MutexLock lock(trace.mutex);
    file.swap(trace.file);
    sink.swap(trace.sink);
    trace.update();
  }
  // Another thread that adds an entry now has the file, too.
  if (file != nullptr) file->end();
}

}  // namespace zq
