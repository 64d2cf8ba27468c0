// The bus library's own messages, to the sink that setZQBusLogSink() set.
#pragma once

#include <string>

namespace zq {

void busLog(const std::string& line);

}  // namespace zq
