// What a pen event costs beyond the packet itself and its log line.
#include <benchmark/benchmark.h>

#include <array>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "bench/paired.h"
#include "bench/rows.h"
#include "perix/perix_proxy.h"
#include "platform/log/log.h"
#include "tests/support/tablet_event.h"

namespace zq::bench {
namespace {

constexpr int kRounds = 101;
constexpr int kBatch = 1000;
constexpr char kPort[] = "com.perix.space.port.2";
constexpr unsigned int kPacketSize = 198;
constexpr int kHeaderSize = 16;
constexpr int kRecordSize = 178;

void openPenPort(PerixProxy& proxy, int& packets) {
  proxy.PortInit(kPort, true, [&packets](const std::string&, unsigned int size, unsigned char*) {
    ++packets;
    return size;
  });
  std::array<unsigned char, kHeaderSize> announcement{0x27, 3, 0x35, 0x08};  // command 2101
  proxy.PortData(kPort, announcement.data(), announcement.size());
}

/// The work that no implementation of the same can leave out.
void sendBare(const std::array<char, kRecordSize>& record, unsigned int& request) {
  const auto packet = std::make_unique_for_overwrite<char[]>(kPacketSize + 1);
  const std::array<char, kHeaderSize> header{};
  const int length = kHeaderSize + kRecordSize;
  std::memcpy(packet.get(), &length, sizeof length);
  std::memcpy(packet.get() + sizeof length, header.data(), kHeaderSize);
  std::memcpy(packet.get() + sizeof length + kHeaderSize, record.data(), kRecordSize);
  benchmark::DoNotOptimize(packet.get());
  benchmark::ClobberMemory();
  orvaneLogPrint(0, 5, "PERIX_LOG",
                 "%s %s(%d): \"Debug:\" \"size:%d, devId:%d,cmd: %d, reqId:%d,type:%d,pressure:%f,"
                 "x:%d,y:%d, posx:%d, posy:%d\"",
                 "perix_proxy_desktops.cpp", "SendPenData", 206, length, 3, 2000,
                 static_cast<int>(++request & 0xFFFF), 87, 0.5, 120, 80, 120, 80);
}

}  // namespace

void addPenRows(Report& report) {
  PerixProxy& proxy = *PerixProxy::getInstance();
  int packets = 0;
  openPenPort(proxy, packets);
  QTabletEvent event = test::tabletEvent(QEvent::TabletMove, {120, 80}, 0.5, 12, -7, -10.25);
  const std::array<char, kRecordSize> record{};
  unsigned int request = 0;
  const Rounds rounds(kRounds, {batchOf(kBatch, [&] { proxy.SendPenData("", &event, 0, -1, -1); }),
                                batchOf(kBatch, [&] { sendBare(record, request); })});
  if (packets != (kRounds + 1) * kBatch) throw std::runtime_error("pen packets were not sent");
  report.add({"SendPenData with its log line", rounds.median(0),
              "one allocation, the copies, one log line", rounds.median(1), rounds.ratio(0, 1),
              Target{Target::Kind::AtMost, 1.5}});
}

}  // namespace zq::bench
