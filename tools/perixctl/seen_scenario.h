// A running service as a scenario: what the public interface shows of it.
#pragma once

#include <string>
#include <vector>

#include "perix/perix_proxy.h"
#include "service/scenario/scenario.h"

namespace zq::ctl {

struct SeenScenario {
  devservice::Scenario scenario;
  std::vector<std::string> gaps;  ///< what the service showed and the scenario lacks, in words
};

/// Asks the service for everything that it lists, and changes nothing. A question that the service
/// refuses is a gap. Throws CommandError when there is no service or no answer in time.
SeenScenario seenScenario(PerixProxy& proxy);

/// What no client sees of a service, line by line.
const std::vector<std::string>& unseenParts();

}  // namespace zq::ctl
