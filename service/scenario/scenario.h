// Scenarios: the world at the start, written as TOML. docs/devservice.md describes every key.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "service/model/model.h"

namespace zq::devservice {

/// Reads a scenario file. Empty when it has mistakes; `mistakes` then holds all of them by line,
/// each as "file:line:column: message".
std::optional<Scenario> loadScenario(const std::string& path, std::vector<std::string>& mistakes);

/// As loadScenario, from a text; `source` takes the place of the file name.
std::optional<Scenario> parseScenario(const std::string& text, const std::string& source,
                                      std::vector<std::string>& mistakes);

/// The scenario as a file that loadScenario() takes, without the keys that have their default
/// values. Texts must be UTF-8.
std::string toToml(const Scenario& scenario);

/// One device: the keys of a [[device]] table that a newly plugged device can have.
std::optional<Device> parseDevice(const std::string& text, const std::string& source,
                                  std::vector<std::string>& mistakes);

}  // namespace zq::devservice
