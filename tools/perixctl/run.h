// The surroundings of a command while it runs.
#pragma once

#include <string>

#include "perix/perix_proxy.h"
#include "tools/perixctl/argument.h"
#include "tools/perixctl/terminal.h"

namespace zq::ctl {

/// The options that every command takes.
struct Globals {
  bool json = false;
  bool verbose = false;
  bool embedded = false;
  std::string scenario;  ///< of the embedded service; empty for its default
};

/// One run of one command. Lives on the main thread.
class Run {
 public:
  Run(const std::string& words, const Globals& globals, const Arguments& arguments,
      Terminal& terminal, WaitIndicator& indicator)
      : words(words),
        globals(globals),
        arguments(arguments),
        terminal(terminal),
        indicator(indicator) {}

  const std::string& words;  ///< the command's
  const Globals& globals;
  const Arguments& arguments;
  Terminal& terminal;
  WaitIndicator& indicator;

  /// The proxy, connected or not: for operations that ask nobody.
  PerixProxy& localProxy();
  /// The proxy, connected. Throws CommandError (NoService) when it cannot be.
  PerixProxy& proxy();

  /// The DESKTOP argument, which the service knows; throws CommandError (NotFound) when it does
  /// not. Empty when the argument was not given.
  std::string desktop();
};

}  // namespace zq::ctl
