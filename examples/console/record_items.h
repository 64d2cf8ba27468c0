// Makes items of the service's records.
//
// A record is as long as the service made it. Nothing here reads behind its end: a missing field
// counts as zero, and a text ends with its field at the latest.
#pragma once

#include <malloc.h>

#include <algorithm>
#include <cstring>

#include "item.h"
#include "perix/events.h"
#include "perix/service_values.h"

namespace zq::console {

/// The record in a `malloc` block of any length, as lists of records hold them.
template <typename Record>
Record recordIn(const Record* block) {
  Record record{};
  std::memcpy(&record, block,
              std::min(sizeof(Record), malloc_usable_size(const_cast<Record*>(block))));
  return record;
}

/// A text in a field, on one line.
template <std::size_t Size>
QString textIn(const char (&field)[Size]) {
  return QString::fromUtf8(field, static_cast<int>(strnlen(field, Size))).simplified();
}

/// What the device did, by the code of its event.
QString deviceEventText(uint16_t code);

/// `desktop` is the name of the desktop that the record names by its number.
Item itemOf(const CommonDevice& device, const QString& desktop);
Item itemOf(const PrinterDevice& printer, const QString& desktop);
Item desktopItem(const QString& name, bool sessionOpen);

}  // namespace zq::console
