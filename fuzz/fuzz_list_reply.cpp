// Replies with any arguments to the operations that read more than a number or a text of theirs.
#include <malloc.h>

#include <cstring>

#include "fuzz/connected_proxy.h"
#include "fuzz/input.h"

namespace zq::fuzz {
namespace {

/// The blocks that a list operation is to return records of: as many as the count says and are
/// there, up to the first that is empty or none.
std::vector<ZQBusBytes> blocksOf(const ZQBusMessage& reply) {
  std::vector<ZQBusBytes> blocks;
  if (reply.type() != 2) return blocks;
  for (int64_t i = 0; i < reply.readInt32(0); ++i) {
    const auto index = static_cast<std::size_t>(i) + 1;
    if (index >= reply.argCount()) break;
    const auto* block = std::get_if<ZQBusBytes>(&reply.arguments()[index]);
    if (block == nullptr || block->size == 0) break;
    blocks.push_back(*block);
  }
  return blocks;
}

/// Whether a record is what was received. GetDeviceList alone writes into some, and nowhere but
/// behind `intact`.
template <typename Record>
void requireSame(const std::list<Record*>& records, const std::vector<ZQBusBytes>& blocks,
                 std::size_t intact) {
  require(records.size() == blocks.size());
  auto block = blocks.begin();
  for (const Record* record : records) {
    // Exact under AddressSanitizer: one byte more written is an error, one less would show here.
    require(::malloc_usable_size(const_cast<Record*>(record)) == block->size);
    require(std::memcmp(record, block->data.get(), std::min<std::size_t>(block->size, intact)) ==
            0);
    ++block;
  }
}

void readDevices(PerixProxy& proxy, const ZQBusMessage& reply) {
  const auto blocks = blocksOf(reply);
  const auto whole = std::numeric_limits<std::size_t>::max();
  const auto listed = proxy.GetDeviceList(kDesktop);
  requireSame(listed, blocks, offsetof(CommonDevice, vmIdText));
  const auto described = proxy.GetDeviceStatus(1);
  requireSame(described, blocks, whole);
  const auto policies = proxy.GetPolicyListByVidPid();
  requireSame(policies, blocks, whole);
  proxy.FreeDeviceList(listed);
  proxy.FreeDeviceList(described);
  proxy.FreePolicyList(policies);
}

void readPrinters(PerixProxy& proxy, const ZQBusMessage& reply) {
  const auto printers = proxy.GetPrinterList(kDesktop);
  requireSame(printers, blocksOf(reply), std::numeric_limits<std::size_t>::max());
  for (PrinterDevice* printer : printers) std::free(printer);
}

void readPairsAndTriples(PerixProxy& proxy, const ZQBusMessage& reply) {
  proxy.GetVmList();
  std::list<_SharePrinterDevice> found(1);
  const int result = proxy.SearchSharePrinterDevice("10.0.0.5", found);
  require(result == 0 || found.size() == 1);
  if (result != 0) return;
  require(reply.type() == 2 && found.size() <= reply.argCount());
  for (const _SharePrinterDevice& printer : found) {
    require(printer.name[127] == 0 && printer.addr[127] == 0 && printer.desc[127] == 0);
  }
}

}  // namespace
}  // namespace zq::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  using namespace zq::fuzz;
  FuzzedDataProvider input(data, size);
  const auto reply = anyListReply(input);
  setReply(reply);
  auto& proxy = connectedProxy();
  readDevices(proxy, reply);
  readPrinters(proxy, reply);
  readPairsAndTriples(proxy, reply);
  return 0;
}
