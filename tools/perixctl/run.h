// The surroundings of a command while it runs.
#pragma once

#include <chrono>
#include <list>
#include <optional>
#include <string>
#include <vector>

#include "perix/perix_proxy.h"
#include "tools/perixctl/argument.h"
#include "tools/perixctl/early_end.h"
#include "tools/perixctl/terminal.h"

namespace zq::ctl {

/// The options that every command takes.
struct Globals {
  bool json = false;
  bool verbose = false;
  bool quiet = false;
  bool trace = false;
  bool noHeadings = false;
  std::string host;  ///< whose session bus to use; empty for this machine
  bool embedded = false;
  std::string scenario;             ///< of the embedded service; empty for its default
  std::vector<std::string> fields;  ///< of tables; empty for the usual ones
  std::optional<std::chrono::seconds> timeout;
};

/// One run of one command. Lives on the main thread.
class Run {
 public:
  Run(const std::string& words, const Globals& globals, const Arguments& arguments,
      Terminal& terminal, WaitIndicator& indicator, EarlyEnd& earlyEnd)
      : words(words),
        globals(globals),
        arguments(arguments),
        terminal(terminal),
        indicator(indicator),
        earlyEnd(earlyEnd) {}

  const std::string& words;  ///< the command's
  const Globals& globals;
  const Arguments& arguments;
  Terminal& terminal;
  WaitIndicator& indicator;
  EarlyEnd& earlyEnd;

  /// The proxy, connected or not: for operations that do not ask the service.
  PerixProxy& localProxy();
  /// The proxy, connected. Throws CommandError (NoService) when it cannot be.
  PerixProxy& proxy();

  /// The DESKTOP argument, which the service knows. Throws CommandError (NotFound) when it does
  /// not, and the error of the look-up when that fails. Empty when the argument was not given.
  std::string desktop();

  /// The DEVICE argument as a device's number: itself up to 65535, else looked up by source id or
  /// by name. Throws CommandError (NotFound) when no device, or more than one, is meant.
  uint16_t deviceNumber();
  /// The records of the device that the DEVICE argument means, at least one; to be freed with
  /// FreeDeviceList. Throws as deviceNumber.
  std::list<CommonDevice*> deviceRecords();
  /// The DEVICE argument as a source id: looked up by number or by name. A number that no device
  /// has is taken for a source id, and the service decides.
  uint64_t deviceSource();
  /// The PRINTER argument as a printer's number, looked up by name. Throws as deviceNumber.
  uint16_t printerNumber();

 private:
  bool hasTried_ = false;  // to connect
};

}  // namespace zq::ctl
