// A diagnosis by the service, step by step.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/perixctl/run.h"

namespace zq::ctl {

struct DiagnosisStep {
  std::string desktop;
  uint64_t value;
  uint32_t progress;  ///< percent
  std::string text;
};

/// Diagnoses a desktop, or a device in it when `sourceId` is not null, and shows the progress.
/// Waits until the diagnosis is complete, 10 s at most for each step. Throws CommandError.
std::vector<DiagnosisStep> diagnose(Run& run, const std::string& desktop, const uint64_t* sourceId);

}  // namespace zq::ctl
