// A service's end of the bus: it owns the service's name there.
//
// The bus lets everybody call, so each call waits here until the daemon has said whose its sender
// is. Nothing of it is read before, but for the descriptor of a request for a direct line, which
// would be held with it.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "sender_trust.h"
#include "service_connection.h"

namespace zq {

class ServiceBusConnection : public ServiceConnection {
 public:
  /// Opens a direct line for a client, on the connection's thread and without the lock: hands the
  /// client's end out through `handover`. 0 or a negative error number.
  using OpenLine = std::function<int(int handover, const std::string& client)>;

  ServiceBusConnection(Owner& owner, std::shared_ptr<ServedObject> object, SdBus connection,
                       OpenLine openLine);

  /// Asks for the service's name, after start(), and waits for the answer. 0 or a negative error
  /// number, -EEXIST when another process owns the name.
  [[nodiscard]] int claimName(ConnectionLoop::Clock::time_point deadline);
  /// Whether clients that have called through the bus are still there; from any thread.
  bool hasClients() const { return hasClients_; }

 private:
  struct LineRequest;
  class Claim;
  class Presence;

  void onCall(sd_bus_message* call) override;
  void onSignal(sd_bus_message* signal) override;
  void doMore() override;
  using Trusted = std::function<void()>;
  void checkSender(sd_bus_message* call, std::shared_ptr<sd_bus_message> kept, Trusted trusted);
  void onOpen(sd_bus_message* call);
  void answerRequest(const LineRequest& request);
  void noteClient(const std::string& name);
  void forgetClient(const std::string& name);
  void subscribe(const char* method, const std::string& client);

  const OpenLine openLine_;
  // Under the loop's lock.
  bool claimed_ = false;
  SenderTrust trust_{calls()};
  std::vector<std::shared_ptr<LineRequest>> requests_;
  std::set<std::string, std::less<>> clients_;  // trusted ones that have called
  std::atomic<bool> hasClients_ = false;
};

}  // namespace zq
