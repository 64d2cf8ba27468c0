#include "tests/support/open_bus.h"

#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace zq {

OpenBus::OpenBus() {
  if (::mkdtemp(directory_.data()) == nullptr) throw std::runtime_error("no directory");
  std::filesystem::permissions(directory_, std::filesystem::perms(0755));
  std::ofstream(directory_ + "/conf")
      << R"(<busconfig><listen>unix:path=)" << directory_ << R"(/bus</listen><auth>EXTERNAL</auth>
      <policy context="default"><allow user="*"/><allow own="*"/><allow send_destination="*"/>
      <allow receive_sender="*"/></policy></busconfig>)";
  ChildProcess::Options options;
  options.arguments = {busDaemon(), "--nofork", "--nopidfile",
                       "--config-file=" + directory_ + "/conf",
                       "--print-address=" + std::to_string(ChildProcess::kReadinessDescriptor)};
  options.readiness = true;
  daemon_ = std::make_unique<ChildProcess>(options);
  const auto line = daemon_->readinessLine(std::chrono::seconds(30));
  if (!line) throw std::runtime_error("no daemon");
  address = line->substr(0, line->find(','));
}

OpenBus::~OpenBus() {
  daemon_.reset();
  std::filesystem::remove_all(directory_);
}

}  // namespace zq
