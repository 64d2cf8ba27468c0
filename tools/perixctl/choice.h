// Devices and printers by name.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "perix/perix_proxy.h"

namespace zq::ctl {

/// A device or a printer that a command line may mean.
struct Choice {
  uint16_t number = 0;
  uint64_t sourceId = 0;  ///< 0 for printers
  std::string name;
};

/// The devices, and the printers, that the service knows now. Throw CommandError when it does not
/// answer.
std::vector<Choice> deviceChoices(PerixProxy& proxy);
std::vector<Choice> printerChoices(PerixProxy& proxy);

/// The choice of that name; where none has it to the letter, the one that differs in capital
/// letters only. Throws CommandError (NotFound), with the candidates, when there is not exactly
/// one. `kind` is the word for all of them.
const Choice& chosen(const std::string& kind, const std::vector<Choice>& choices,
                     const std::string& name);

}  // namespace zq::ctl
