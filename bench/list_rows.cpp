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
#include "platform/zqbus/codec.h"

namespace zq::bench {
namespace {

constexpr int kRounds = 61;
constexpr int kBatch = 5;

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
  decodeArguments(received, reply);
  const auto devices = readRecords<CommonDevice>(reply);
  requireWhole(devices.size());
  freeRecords(devices);
}

/// The least that a list of records of one's own can cost.
void allocateAndCopy(const std::vector<char>& source) {
  std::vector<void*> blocks;
  blocks.reserve(kListRecords);
  for (int i = 0; i < kListRecords; ++i) {
    void* const block = std::malloc(kRecordSize);
    std::memcpy(block, source.data() + static_cast<std::size_t>(i) * kRecordSize, kRecordSize);
    blocks.push_back(block);
  }
  for (void* block : blocks) std::free(block);
}

}  // namespace

void addListRows(Report& report) {
  PerixProxy& proxy = *PerixProxy::getInstance();
  const RawBus raw = openRawBus();
  const RawMessage received = getDeviceListRaw(raw.get());
  const std::vector<char> source(std::size_t{kListRecords} * kRecordSize, '\1');
  const Rounds rounds(kRounds, {batchOf(kBatch, [&] { getAndFreeList(proxy); }),
                                batchOf(kBatch, [&] { getDeviceListRaw(raw.get()); }),
                                batchOf(kBatch, [&] { allocateAndCopy(source); }),
                                batchOf(kBatch, [&] { decodeAndFreeList(received.get()); })});

  const auto inClient = [](const std::vector<double>& round) { return round[0] - round[1]; };
  report.add({"GetDeviceList of 1000 records of 1 KiB", rounds.median(0),
              "the same by raw sd_bus_call, not decoded", rounds.median(1), rounds.ratio(0, 1),
              std::nullopt});
  report.add({"  their difference: time in the client", rounds.median(inClient),
              "allocating and copying the same bytes", rounds.median(2),
              rounds.median([&](const auto& round) { return inClient(round) / round[2]; }),
              Bar{Bar::Kind::AtMost, 5}});
  report.add({"  decoding alone, into messages and records", rounds.median(3),
              "allocating and copying the same bytes", rounds.median(2), rounds.ratio(3, 2),
              std::nullopt});
}

}  // namespace zq::bench
