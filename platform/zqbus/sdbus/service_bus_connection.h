// A service's connection to the bus: it owns the service's name there.
//
// Any client of the bus may call, so each call waits here until the daemon has named the user of
// its sender. Until then only the descriptor of a request for a direct line is read, since the call
// would keep it open.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "sender_trust.h"
#include "service_connection.h"

namespace zq {

class ServiceBusConnection : public ServiceConnection {
 public:
  /// Opens a direct line for a client, on the connection's thread and without the loop's mutex:
  /// passes the client's socket out through `handover`. 0 or a negative error number.
  using OpenLine = std::function<int(int handover, const std::string& client)>;

  ServiceBusConnection(Owner& owner, std::shared_ptr<ServedObject> object, SdBus connection,
                       OpenLine openLine);

  /// Asks for the service's name, after start(), and waits for the answer. 0 or a negative error
  /// number: -EBUSY while the connection named `former` owns the name, -EEXIST when another does.
  [[nodiscard]] int claimName(ConnectionLoop::Clock::time_point deadline,
                              const std::string& former);
  /// Its unique name on the bus.
  const std::string& uniqueName() const { return uniqueName_; }
  /// Whether a client that has called through the bus is still connected; any thread.
  bool hasClients() const { return hasClients_; }

 private:
  struct LineRequest;
  class Claim;
  class OwnerAnswer;
  class Presence;

  int askAboutName(const char* method, std::shared_ptr<PendingCall> answer,
                   ConnectionLoop::Clock::time_point deadline,
                   std::optional<uint32_t> flags = std::nullopt) EXCLUDES(loop().mutex());
  std::string ownerOfName(ConnectionLoop::Clock::time_point deadline) EXCLUDES(loop().mutex());
  void onCall(sd_bus_message* call) override REQUIRES(loop().mutex());
  void onSignal(sd_bus_message* signal) override REQUIRES(loop().mutex());
  void doMore() override EXCLUDES(loop().mutex());
  using Trusted = std::function<void()>;
  void checkSender(sd_bus_message* call, std::shared_ptr<sd_bus_message> kept,
                   SenderTrust::Keeps keeps, Trusted trusted) REQUIRES(loop().mutex());
  void onListen(sd_bus_message* call) REQUIRES(loop().mutex());
  void onOpen(sd_bus_message* call) REQUIRES(loop().mutex());
  void answerRequest(const LineRequest& request) EXCLUDES(loop().mutex());
  void addClient(const std::string& name) REQUIRES(loop().mutex());
  void removeClient(const std::string& name) REQUIRES(loop().mutex());
  void changeMatch(const char* method, const std::string& client) REQUIRES(loop().mutex());

  const OpenLine openLine_;
  const std::string uniqueName_;
  bool claimed_ GUARDED_BY(loop().mutex()) = false;
  SenderTrust trust_ GUARDED_BY(loop().mutex());
  std::vector<std::shared_ptr<LineRequest>> requests_ GUARDED_BY(loop().mutex());
  // The trusted clients that have called and are still connected.
  std::set<std::string, std::less<>> clients_ GUARDED_BY(loop().mutex());
  std::atomic<bool> hasClients_ = false;
};

}  // namespace zq
