// A bus that admits every user.
#pragma once

#include <memory>
#include <string>

#include "tools/embedded/child_process.h"

namespace zq {

class OpenBus {
 public:
  OpenBus();
  ~OpenBus();
  OpenBus(const OpenBus&) = delete;
  OpenBus& operator=(const OpenBus&) = delete;

  std::string address;

 private:
  std::string directory_ = "/tmp/perix-open-bus-XXXXXX";
  std::unique_ptr<ChildProcess> daemon_;
};

}  // namespace zq
