#include "bench/peer_process.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "bench/peers/peer.h"

namespace zq::bench {
namespace {

constexpr std::chrono::seconds kPatience{10};

/// A name of the peer's own on the bus, which takes no signs but letters and digits.
std::string busNameOf(const std::string& peer) {
  std::string name = peer;
  std::replace_if(
      name.begin(), name.end(), [](unsigned char sign) { return !std::isalnum(sign); }, '_');
  return "org.zqbus.peer." + name;
}

ChildProcess::Options optionsOf(std::vector<std::string> arguments) {
  ChildProcess::Options options;
  options.arguments = std::move(arguments);
  options.environment["DBUS_SESSION_BUS_ADDRESS"] = std::getenv("ZQBUS_ADDRESS");
  return options;
}

}  // namespace

PeerProcess::PeerProcess(const std::string& program)
    : name_(std::filesystem::path(program).filename().string()) {
  const std::string busName = busNameOf(name_);
  ChildProcess::Options service = optionsOf({program, "--service", busName});
  service.readiness = true;
  service_ = std::make_unique<ChildProcess>(service);
  if (!service_->readinessLine(kPatience)) {
    throw std::runtime_error("the peer does not come up: " + name_);
  }
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) throw std::runtime_error("no socket pair");
  socket_ = OwnedDescriptor(ends[0]);
  const OwnedDescriptor theirs(ends[1]);
  client_ = std::make_unique<ChildProcess>(
      optionsOf({program, "--client", busName, std::to_string(theirs.get())}));
}

double PeerProcess::measure(int batch) const {
  const PeerBatch order = batch;
  double figure = 0;
  if (::send(socket_.get(), &order, sizeof order, MSG_NOSIGNAL) != sizeof order ||
      ::read(socket_.get(), &figure, sizeof figure) != sizeof figure) {
    throw std::runtime_error("the peer has gone: " + name_);
  }
  return figure;
}

std::vector<std::unique_ptr<PeerProcess>> startPeers(const std::string& thisProgram) {
  namespace fs = std::filesystem;
  const fs::path directory = fs::path(thisProgram).parent_path() / "peers";
  std::vector<std::string> programs;
  if (fs::exists(directory)) {
    for (const auto& entry : fs::directory_iterator(directory)) programs.push_back(entry.path());
  }
  std::sort(programs.begin(), programs.end());
  std::vector<std::unique_ptr<PeerProcess>> peers;
  for (const std::string& program : programs)
    peers.push_back(std::make_unique<PeerProcess>(program));
  return peers;
}

}  // namespace zq::bench
