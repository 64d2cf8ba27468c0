#include "tools/embedded/private_bus.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace zq {
namespace {

constexpr ChildProcess::Milliseconds kStartTimeout{10'000};

// The limits are those of a stock session bus, which trusts its one user.
constexpr const char* kConfiguration = R"(<busconfig>
  <type>session</type>
  <listen>unix:path=@SOCKET@</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
  <limit name="max_incoming_bytes">1000000000</limit>
  <limit name="max_incoming_unix_fds">250000000</limit>
  <limit name="max_outgoing_bytes">1000000000</limit>
  <limit name="max_outgoing_unix_fds">250000000</limit>
  <limit name="max_message_size">1000000000</limit>
  <limit name="service_start_timeout">120000</limit>
  <limit name="auth_timeout">240000</limit>
  <limit name="pending_fd_timeout">150000</limit>
  <limit name="max_completed_connections">100000</limit>
  <limit name="max_incomplete_connections">10000</limit>
  <limit name="max_connections_per_user">100000</limit>
  <limit name="max_pending_service_starts">10000</limit>
  <limit name="max_names_per_connection">50000</limit>
  <limit name="max_match_rules_per_connection">50000</limit>
  <limit name="max_replies_per_connection">50000</limit>
</busconfig>
)";

std::filesystem::path makeDirectory() {
  std::string pattern = "/tmp/perix-bus-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) {
    throw std::system_error(errno, std::generic_category(), "making " + pattern);
  }
  return pattern;
}

void writeConfiguration(const std::filesystem::path& file, const std::filesystem::path& socket) {
  const std::string placeholder = "@SOCKET@";
  std::string text = kConfiguration;
  text.replace(text.find(placeholder), placeholder.size(), socket.string());
  std::ofstream out(file);
  out << text;
  if (!out.flush()) throw std::runtime_error("cannot write " + file.string());
}

// A child that did not get ready, in its own words.
[[noreturn]] void throwNotReady(ChildProcess& child, const std::string& name) {
  const std::string what = child.running() ? name + " was not ready after 10 seconds"
                                           : name + " ended before it was ready (status " +
                                                 std::to_string(child.wait()) + ")";
  child.kill();
  const std::string words = child.errorText();
  throw std::runtime_error(words.empty() ? what : what + ": " + words);
}

}  // namespace

PrivateBus::PrivateBus() : directory_(makeDirectory()) {
  try {
    writeConfiguration(directory_ / "bus.conf", directory_ / "bus");
    start();
  } catch (...) {
    std::filesystem::remove_all(directory_);
    throw;
  }
}

PrivateBus::~PrivateBus() {
  daemon_.reset();
  std::error_code ignored;
  std::filesystem::remove_all(directory_, ignored);
}

void PrivateBus::kill() {
  daemon_->kill();
}

void PrivateBus::restart() {
  kill();
  start();
}

void PrivateBus::start() {
  std::filesystem::remove(directory_ / "bus");
  ChildProcess::Options options;
  options.arguments = {"dbus-daemon", "--nofork", "--nopidfile",
                       "--config-file=" + (directory_ / "bus.conf").string(),
                       "--print-address=" + std::to_string(ChildProcess::kReadinessDescriptor)};
  options.error = ChildProcess::Stream::Capture;
  options.readiness = true;
  daemon_ = std::make_unique<ChildProcess>(options);
  const auto line = daemon_->readinessLine(kStartTimeout);
  if (!line) throwNotReady(*daemon_, "dbus-daemon");
  // Behind the comma stands the identity of this very daemon; a later one has another.
  address_ = line->substr(0, line->find(','));
}

std::unique_ptr<ChildProcess> startDevelopmentService(const std::string& busAddress,
                                                      const std::string& program,
                                                      const std::vector<std::string>& arguments) {
  ChildProcess::Options options;
  options.arguments = {program, "--ready-fd", std::to_string(ChildProcess::kReadinessDescriptor)};
  options.arguments.insert(options.arguments.end(), arguments.begin(), arguments.end());
  options.environment = {{"ZQBUS_ADDRESS", busAddress}};
  options.output = ChildProcess::Stream::Discard;
  options.error = ChildProcess::Stream::Capture;
  options.readiness = true;
  auto service = std::make_unique<ChildProcess>(options);
  if (!service->readinessLine(kStartTimeout)) throwNotReady(*service, program);
  return service;
}

}  // namespace zq
