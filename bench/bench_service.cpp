#include "bench/bench_service.h"

#include <unistd.h>

#include <cstdio>
#include <map>

#include "tools/embedded/child_process.h"
#include "zqbus/zqbus_service.h"

namespace zq::bench {
namespace {

ZQBusMessage answerOf(int32_t number) {
  ZQBusMessage message;
  message.appendInt32(number);
  return message;
}

ZQBusMessage deviceList() {
  ZQBusMessage message = answerOf(kListRecords);
  const std::string record(kRecordSize, '\1');  // status 0x0101: connected to no desktop
  for (int i = 0; i < kListRecords; ++i) message.appendBytes(record.data(), kRecordSize);
  return message;
}

}  // namespace

int runBenchService() {
  const std::map<std::string, ZQBusMessage> answers = {
      {"connectDevice", answerOf(0)},
      {"getVmListSize", answerOf(kDesktopId)},
      {"getDeviceList", deviceList()},
  };
  std::string error;
  const auto service = ZQBusService::claim(
      "perix", {},
      [&answers](const std::shared_ptr<ZQBusCall>& call) {
        const auto answer = answers.find(call->message().name());
        if (answer == answers.end()) return call->failUnknownMethod();
        call->reply(answer->second);
      },
      error);
  if (service == nullptr) {
    std::fprintf(stderr, "perix_bench: %s\n", error.c_str());
    return 1;
  }
  if (::write(ChildProcess::kReadinessDescriptor, "ready\n", 6) != 6) return 1;
  for (;;) ::pause();
}

}  // namespace zq::bench
