// The bus library's own messages, to the sink that setZQBusLogSink() set.
#pragma once

#include <string_view>

namespace zq {

/// Logs `line` and `more` as one line. Without memory for it, the line is lost.
void busLog(std::string_view line, std::string_view more = {});

}  // namespace zq
