// Every operation that asks the service: what it sends, how long it waits, what it makes of the
// answer.
#pragma once

#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "perix/perix_proxy.h"
#include "zqbus/message.h"

namespace zq {

struct WireRow {
  std::string sends;    ///< as ZQBusMessage::toDebugString writes it, without "call "
  int timeoutMs;        ///< kNoWait when it does not wait
  ZQBusMessage reply;   ///< the service's answer, and
  std::string result;   ///< what the operation returns for it
  std::string failure;  ///< what it returns without a service or for an error
  std::function<std::string(PerixProxy&)> run;
};

inline constexpr int kNoWait = -1;

/// Named by the operation; an operation may stand in several rows.
struct NamedWireRow {
  std::string name;
  WireRow row;
};
inline std::ostream& operator<<(std::ostream& out, const NamedWireRow& row) {
  return out << row.name;
}

const std::vector<NamedWireRow>& wireTable();

}  // namespace zq
