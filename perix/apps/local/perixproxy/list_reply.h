// List replies: int32 count, then one byte block per record.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <list>
#include <memory>
#include <new>

#include "bus_call.h"
#include "log_line.h"
#include "no_throw.h"

namespace zq {

/// How an operation treats an empty block in a list.
enum class EmptyBlock { Noted, AnError };

/// `number` counts the list's records; it is not the block's length.
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

/// Appends a copy of a block, a `malloc` block of its own, to a list. The few bytes by which the
/// allocator rounds its length up are zero: a program that asks for the usable size may read them.
template <typename Record>
Record& appendCopy(const ZQBusBytes& block, std::list<Record*>& records) {
  std::unique_ptr<void, decltype(&std::free)> copy(std::calloc(1, block.size), &std::free);
  if (copy == nullptr) throw std::bad_alloc();
  std::memcpy(copy.get(), block.data.get(), block.size);
  records.push_back(static_cast<Record*>(copy.get()));
  return *static_cast<Record*>(copy.release());
}

/// Copies each record of a list reply, in order, and hands block and copy to `each(block, copy)`:
/// of `copy` as many bytes exist as the block has. An empty block ends the list; so do a missing
/// block and a lack of memory, which PerixLastFailure() reports.
template <typename Record, typename Each>
std::list<Record*> readRecords(const PerixCall& call, const ZQBusMessage& reply,
                               EmptyBlock emptyBlock, Each each) {
  std::list<Record*> records;
  const int32_t count = call.integer(reply, 0);
  try {
    for (std::size_t i = 1; count > 0 && i <= static_cast<std::size_t>(count); ++i) {
      const ZQBusBytes* const block = call.has<ZQBusBytes>(reply, i) ? reply.bytesAt(i) : nullptr;
      if (block == nullptr || block->size == 0) {
        logEmptyBlock(emptyBlock, block != nullptr ? block->data.get() : nullptr, count,
                      call.site());
        break;
      }
      each(*block, appendCopy(*block, records));
    }
  } catch (...) {
    return gaveUp(call.method(), std::move(records), call.site());
  }
  return records;
}

/// As above, for records that are passed on as they are.
template <typename Record>
std::list<Record*> readRecords(const PerixCall& call, const ZQBusMessage& reply) {
  const auto leave = [](const ZQBusBytes&, Record&) {};
  return readRecords<Record>(call, reply, EmptyBlock::Noted, leave);
}

/// Frees the records of a list.
template <typename Record>
void freeRecords(const std::list<Record*>& records) {
  for (Record* record : records) std::free(record);
}

}  // namespace zq
