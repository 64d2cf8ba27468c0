#include "bus_log.h"

#include <algorithm>
#include <atomic>
#include <new>
#include <string>

#include "zqbus/zqbus.h"

namespace zq {
namespace {

std::atomic<ZQBusLogSink> logSink = nullptr;

}  // namespace

void setZQBusLogSink(ZQBusLogSink sink) {
  logSink = sink;
}

void busLog(std::string_view line, std::string_view more) try {
  const ZQBusLogSink sink = logSink;
  if (sink == nullptr) return;
  std::string text(line);
  text += more;
  // The words of a bus may end in a line end, or hold some.
  text.erase(text.find_last_not_of('\n') + 1);
  std::replace(text.begin(), text.end(), '\n', ' ');
  sink(text.c_str());
} catch (const std::bad_alloc&) {
}

}  // namespace zq
