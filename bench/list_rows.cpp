// What a long list costs the client beyond receiving it.
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "bench/bench_service.h"
#include "bench/paired.h"
#include "bench/raw_bus.h"
#include "bench/rows.h"
#include "perix/apps/local/perixproxy/list_reply.h"
#include "perix/perix_proxy.h"
#include "platform/zqbus/sdbus/codec.h"

namespace zq::bench {
namespace {

constexpr int kRounds = 61;
constexpr int kBatch = 5;
constexpr char kWhat[] = "GetDeviceList of 1000 records of 1 KiB";

void requireWhole(std::size_t records) {
  if (records != kListRecords) throw std::runtime_error("the list is not whole");
}

void getAndFreeList(PerixProxy& proxy) {
  const auto devices = proxy.GetDeviceList(kDesktop);
  requireWhole(devices.size());
  proxy.FreeDeviceList(devices);
}

/// Both decodings that GetDeviceList makes of a reply, without bus or lock.
void decodeAndFreeList(sd_bus_message* received) {
  sd_bus_message_rewind(received, 1);
  ZQBusMessage reply(ZQBusMessageType::MethodReturn, {});
  if (decodeArguments(received, reply) < 0) std::abort();
  std::list<CommonDevice*> devices;
  for (std::size_t i = 1; i < reply.argCount(); ++i) appendCopy(*reply.bytesAt(i), devices);
  requireWhole(devices.size());
  freeRecords(devices);
}

/// Blocks of one's own, each with a copy of a record, as a list's receiver has them in the end.
class Copies {
 public:
  Copies() { blocks_.reserve(kListRecords); }
  Copies(const Copies&) = delete;
  Copies& operator=(const Copies&) = delete;
  ~Copies() {
    for (void* block : blocks_) std::free(block);
  }
  void add(const void* record) {
    blocks_.push_back(std::memcpy(std::malloc(kRecordSize), record, kRecordSize));
  }

 private:
  std::vector<void*> blocks_;
};

void copyAndFreeList(sd_bus_message* received) {
  Copies copies;
  readDeviceListRaw(received, [&copies](const void* record) { copies.add(record); });
}

/// The least that a list of records of one's own can cost.
void allocateAndCopy(const std::vector<char>& source) {
  Copies copies;
  for (std::size_t i = 0; i < kListRecords; ++i) copies.add(source.data() + i * kRecordSize);
}

}  // namespace

void addDirectListRows(Report& report, sd_bus* bare) {
  PerixProxy& proxy = *PerixProxy::getInstance();
  const RawBus raw = openRawBus();
  const auto getRaw = [&] { return getDeviceListRaw(raw.get(), kRawName, kRawPath); };
  const Rounds rounds(
      kRounds, {batchOf(kBatch, [&] { getAndFreeList(proxy); }),
                batchOf(kBatch, [&] { copyAndFreeList(getRaw().get()); }), batchOf(kBatch, getRaw),
                batchOf(kBatch, [&] { getDeviceListRaw(bare, kRawName, kRawPath); })});
  report.add({kWhat, rounds.median(0), "raw sd-bus both ends, daemon, records copied",
              rounds.median(1), rounds.ratio(0, 1), Target{Target::Kind::AtMost, 0.35}});
  report.add({kWhat, rounds.median(0), "raw sd-bus both ends, daemon, not decoded",
              rounds.median(2), rounds.ratio(0, 2), std::nullopt});
  report.add({"  by bare sd-bus on a socket pair, not decoded", rounds.median(3),
              "raw sd-bus both ends, daemon, records copied", rounds.median(1), rounds.ratio(3, 1),
              std::nullopt});
}

void addBrokerListRows(Report& report) {
  PerixProxy& proxy = *PerixProxy::getInstance();
  const RawBus raw = openRawBus();
  const auto getRaw = [&] { return getDeviceListRaw(raw.get(), kServiceName, kServicePath); };
  const RawMessage received = getRaw();
  const std::vector<char> source(std::size_t{kListRecords} * kRecordSize, '\1');
  const Rounds rounds(kRounds,
                      {batchOf(kBatch, [&] { getAndFreeList(proxy); }), batchOf(kBatch, getRaw),
                       batchOf(kBatch, [&] { allocateAndCopy(source); }),
                       batchOf(kBatch, [&] { decodeAndFreeList(received.get()); })});

  const auto inClient = [](const std::vector<double>& round) { return round[0] - round[1]; };
  report.add({kWhat, rounds.median(0), "the same by raw sd_bus_call, not decoded", rounds.median(1),
              rounds.ratio(0, 1), std::nullopt});
  report.add({"  their difference: time in the client", rounds.median(inClient),
              "allocating and copying the same bytes", rounds.median(2),
              rounds.median([&](const auto& round) { return inClient(round) / round[2]; }),
              Target{Target::Kind::AtMost, 5}});
  report.add({"  decoding alone, into messages and records", rounds.median(3),
              "allocating and copying the same bytes", rounds.median(2), rounds.ratio(3, 2),
              std::nullopt});
}

}  // namespace zq::bench
