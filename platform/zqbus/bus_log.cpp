#include "bus_log.h"

#include <atomic>

#include "zqbus/zqbus.h"

namespace zq {
namespace {

std::atomic<ZQBusLogSink> logSink = nullptr;

}  // namespace

void setZQBusLogSink(ZQBusLogSink sink) {
  logSink = sink;
}

void busLog(const std::string& line) {
  if (const ZQBusLogSink sink = logSink) sink(line.c_str());
}

}  // namespace zq
