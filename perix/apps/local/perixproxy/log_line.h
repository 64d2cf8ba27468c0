// The proxy's log lines: `file operation(line): "severity" "message"`, printf style.
#pragma once

#include <string_view>

#include "platform/log/log.h"

namespace zq {

/// The place in the sources that writes a line.
struct LogSite {
  const char* file;
  const char* function;
  int line;
};

/// A path without its folders.
constexpr const char* fileName(const char* path) {
  const std::string_view view(path);
  return path + (view.rfind('/') + 1);  // npos + 1 is 0
}

/// The place that calls, when used as the default of a parameter. `operation` stands for the name
/// of the calling function, unless it is null.
constexpr LogSite here(const char* operation = nullptr, const char* file = __builtin_FILE(),
                       const char* function = __builtin_FUNCTION(), int line = __builtin_LINE()) {
  return {fileName(file), operation != nullptr ? operation : function, line};
}

/// A line carries the name of the operation, as a rule that of the function that writes it. A
/// function, or a class, that does a part of an operation declares a constant of this name with the
/// name of the operation: it hides this constant.
inline constexpr const char* kOperation = nullptr;

/// The logger's priority for one of our levels; 0 for levels that print nothing.
constexpr int logPriority(int level) {
  constexpr int kPriorities[] = {7, 6, 0, 3, 5, 2};
  return level >= 0 && level <= 5 ? kPriorities[level] : 0;
}

/// The logger's priority for refusals of the service.
inline constexpr int kWarningPriority = 6;

inline constexpr int kErrorLevel = 0;
inline constexpr int kDebugLevel = 4;

}  // namespace zq

// Macros, so that the compiler checks the arguments against the whole format.
#define PERIX_LOG(site, level, severity, message, ...)                                \
  do {                                                                                \
    if constexpr (constexpr int priority = ::zq::logPriority(level); priority != 0) { \
      const ::zq::LogSite from = site;                                                \
      ::zq::orvaneLogPrint(0, priority, "PERIX_LOG",                                  \
                           "%s %s(%d): \"" severity "\" \"" message "\"", from.file,  \
                           from.function, from.line __VA_OPT__(, ) __VA_ARGS__);      \
    }                                                                                 \
  } while (false)

#define PERIX_ERROR_AT(site, ...) PERIX_LOG(site, ::zq::kErrorLevel, "Error:", __VA_ARGS__)
#define PERIX_DEBUG_AT(site, ...) PERIX_LOG(site, ::zq::kDebugLevel, "Debug:", __VA_ARGS__)
#define PERIX_ERROR(...) PERIX_ERROR_AT(::zq::here(kOperation), __VA_ARGS__)
#define PERIX_DEBUG(...) PERIX_DEBUG_AT(::zq::here(kOperation), __VA_ARGS__)
