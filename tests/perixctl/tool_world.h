// perixctl, the real one, in a world of its own.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <string>

#include "perix/test_service.h"
#include "tools/embedded/child_process.h"

namespace zq::ctl {

using Environment = std::map<std::string, std::string>;

/// A private bus and the real development service on it.
class ToolWorld {
 public:
  explicit ToolWorld(const std::string& scenario = SCENARIO)
      : service({PerixTestService::Place::Beside, scenario, {}, DEVSERVICE}) {}
  /// Ends the service, and checks that no file that was written in the directory holds the token.
  ~ToolWorld();
  ToolWorld(const ToolWorld&) = delete;
  ToolWorld& operator=(const ToolWorld&) = delete;

  /// The directory of the bus, for files that go with it.
  std::filesystem::path directory() const;

  /// Runs `perixctl WORDS` as a shell would, to its end.
  ChildProcess::Result run(const std::string& words, const Environment& added = {}) const;
  /// Expects success, and returns the output.
  std::string succeed(const std::string& words) const;
  /// Starts `perixctl WORDS --ready-fd 3` and returns once it is ready; its output is captured.
  std::unique_ptr<ChildProcess> startReady(const std::string& words,
                                           const Environment& added = {}) const;

  PerixTestService service;
};

/// Runs `perixctl WORDS` as a shell would, on the bus at `address`.
ChildProcess::Result runPerixctlOn(const std::string& address, const std::string& words,
                                   const Environment& added = {});

}  // namespace zq::ctl
