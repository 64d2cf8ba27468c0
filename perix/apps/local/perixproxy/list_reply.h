// List replies: int32 count, then one byte block per record.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <list>

#include "log_line.h"
#include "zqbus/message.h"

namespace zq {

/// How an operation takes an empty block in a list.
enum class EmptyBlock { Noted, AnError };

/// The number is that of the list's records, not the block's length.
inline void logEmptyBlock(EmptyBlock emptyBlock, const void* block, int count, LogSite site) {
  if (emptyBlock == EmptyBlock::AnError) {
    PERIX_ERROR_AT(site, "buf: %p, size: %d", block, count);
  } else {
    PERIX_DEBUG_AT(site, "buf: %p, size: %d", block, count);
  }
}

/// A block read as a record, with zeros where the block is too short for it.
template <typename Record>
Record recordOf(const ZQBusBytes& block) {
  Record record{};
  std::memcpy(static_cast<void*>(&record), block.data.get(),
              std::min<std::size_t>(block.size, sizeof record));
  return record;
}

/// Copies each record of a list reply into a `malloc` block of its own, in order, and hands both
/// to `each(block, copy)`: of `copy` as many bytes exist as the block has. An empty block ends the
/// list.
template <typename Record, typename Each>
std::list<Record*> readRecords(const ZQBusMessage& reply, EmptyBlock emptyBlock, Each each,
                               LogSite site = here()) {
  std::list<Record*> records;
  const int32_t count = reply.readInt32(0);
  for (int32_t i = 0; i < count; ++i) {
    const ZQBusBytes* const block = reply.bytesAt(static_cast<std::size_t>(i) + 1);
    if (block == nullptr || block->size == 0) {
      logEmptyBlock(emptyBlock, block != nullptr ? block->data.get() : nullptr, count, site);
      break;
    }
    auto* const copy = static_cast<Record*>(std::malloc(block->size));
    std::memcpy(static_cast<void*>(copy), block->data.get(), block->size);
    records.push_back(copy);
    each(*block, *copy);
  }
  return records;
}

/// As above, for records that are passed on as they are.
template <typename Record>
std::list<Record*> readRecords(const ZQBusMessage& reply, LogSite site = here()) {
  const auto leave = [](const ZQBusBytes&, Record&) {};
  return readRecords<Record>(reply, EmptyBlock::Noted, leave, site);
}

/// Frees the records of a list.
template <typename Record>
void freeRecords(const std::list<Record*>& records) {
  for (Record* record : records) std::free(record);
}

}  // namespace zq
