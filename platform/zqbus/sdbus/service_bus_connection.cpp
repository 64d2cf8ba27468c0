#include "service_bus_connection.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <future>
#include <utility>

#include "call_stub.h"
#include "platform/zqbus/bus_log.h"
#include "platform/zqbus/time_limit.h"
#include "sd_bus_open.h"
#include "spare_descriptors.h"

namespace zq {
namespace {

constexpr uint32_t kDoNotQueue = 4;
constexpr uint32_t kPrimaryOwner = 1;

int claimResult(sd_bus_message* reply) {
  uint32_t outcome = 0;
  if (reply == nullptr) return -ETIMEDOUT;
  if (const int error = sd_bus_message_get_errno(reply); error > 0) return -error;
  if (sd_bus_message_read(reply, "u", &outcome) <= 0) return -EBADMSG;
  return outcome == kPrimaryOwner ? 0 : -EEXIST;
}

std::string uniqueNameOf(sd_bus* bus) {
  const char* name = nullptr;
  return sd_bus_get_unique_name(bus, &name) >= 0 ? name : "";
}

bool holdsDescriptors(sd_bus_message* call) {
  return std::strchr(sd_bus_message_get_signature(call, 1), SD_BUS_TYPE_UNIX_FD) != nullptr;
}

}  // namespace

/// The request of a client for a direct line.
struct ServiceBusConnection::LineRequest {
  explicit LineRequest(sd_bus_message* call) : stub(stubOf(call)) {
    int passed = -1;
    if (sd_bus_message_read_basic(call, SD_BUS_TYPE_UNIX_FD, &passed) > 0) {
      handover = ::fcntl(passed, F_DUPFD_CLOEXEC, 3);
    }
  }
  ~LineRequest() {
    if (handover >= 0) ::close(handover);
  }
  LineRequest(const LineRequest&) = delete;
  LineRequest& operator=(const LineRequest&) = delete;

  SdBusMessage stub;
  int handover = -1;
};

class ServiceBusConnection::Claim : public PendingCall {
 public:
  explicit Claim(ServiceBusConnection& connection) : connection_(connection) {}
  void onOutcome(sd_bus_message* reply) override REQUIRES(connection_.loop().mutex()) {
    const int outcome = claimResult(reply);
    connection_.claimed_ = outcome >= 0;
    result.set_value(outcome);
  }
  std::promise<int> result;

 private:
  ServiceBusConnection& connection_;
};

/// The daemon's answer to which connection owns the service's name; empty when none does.
class ServiceBusConnection::OwnerAnswer : public PendingCall {
 public:
  void onOutcome(sd_bus_message* reply) override {
    const char* name = "";
    if (reply != nullptr && sd_bus_message_is_method_error(reply, nullptr) == 0) {
      sd_bus_message_read(reply, "s", &name);
    }
    owner.set_value(name);
  }
  std::promise<std::string> owner;
};

/// The daemon's answer whether a client is still connected.
class ServiceBusConnection::Presence : public PendingCall {
 public:
  Presence(ServiceBusConnection& connection, std::string name)
      : connection_(connection), name_(std::move(name)) {}
  void onOutcome(sd_bus_message* reply) override REQUIRES(connection_.loop().mutex()) {
    int isThere = 0;
    if (reply == nullptr || sd_bus_message_read(reply, "b", &isThere) <= 0 || isThere == 0) {
      connection_.removeClient(name_);
    }
  }

 private:
  ServiceBusConnection& connection_;
  const std::string name_;
};

ServiceBusConnection::ServiceBusConnection(Owner& owner, std::shared_ptr<ServedObject> object,
                                           SdBus connection, OpenLine openLine)
    : ServiceConnection(owner, std::move(object), std::move(connection), "", Backlog::Unbounded),
      openLine_(std::move(openLine)),
      uniqueName_(uniqueNameOf(loop().bus())),
      trust_(calls()) {}

int ServiceBusConnection::claimName(ConnectionLoop::Clock::time_point deadline,
                                    const std::string& former) {
  const auto claim = std::make_shared<Claim>(*this);
  auto result = claim->result.get_future();
  const int asked = askAboutName("RequestName", claim, deadline, kDoNotQueue);
  const int outcome = asked >= 0 ? result.get() : asked;
  if (outcome != -EEXIST || former.empty()) return outcome;
  return ownerOfName(deadline) == former ? -EBUSY : outcome;
}

std::string ServiceBusConnection::ownerOfName(ConnectionLoop::Clock::time_point deadline) {
  const auto answer = std::make_shared<OwnerAnswer>();
  auto owner = answer->owner.get_future();
  return askAboutName("GetNameOwner", answer, deadline) >= 0 ? owner.get() : "";
}

/// Asks the daemon something about the service's name. 0 or a negative error number: then `answer`
/// hears nothing.
int ServiceBusConnection::askAboutName(const char* method, std::shared_ptr<PendingCall> answer,
                                       ConnectionLoop::Clock::time_point deadline,
                                       std::optional<uint32_t> flags) {
  const ConnectionLoop::Hold hold(loop());
  const SdBusMessage call = newBusCall(loop().bus(), method, object().interface.c_str(), flags);
  if (call == nullptr) return -ENOMEM;
  const int asked = calls().send(loop().bus(), call.get(), std::move(answer), deadline);
  if (asked >= 0) loop().afterSend();
  return asked;
}

// --- Calls ---------------------------------------------------------------------------------------

void ServiceBusConnection::onCall(sd_bus_message* call) {
  // A bus names the sender of every message; without a name the sender cannot be checked.
  if (sd_bus_message_get_sender(call) == nullptr) return;
  if (!claimed_) return refuse(call, SD_BUS_ERROR_SERVICE_UNKNOWN, "the service has no name yet");
  if (sd_bus_message_is_method_call(call, kDirectInterface, kDirectOpen) > 0) return onOpen(call);
  if (holdsDescriptors(call)) {
    return refuse(call, SD_BUS_ERROR_INVALID_ARGS, "calls must not carry descriptors");
  }
  if (sd_bus_message_is_method_call(call, kDirectInterface, kDirectListen) > 0) {
    return onListen(call);
  }
  if (clients_.contains(std::string_view(sd_bus_message_get_sender(call)))) return receive(call);
  const std::shared_ptr<sd_bus_message> kept(sd_bus_message_ref(call), SdBusRelease());
  checkSender(call, kept, SenderTrust::Keeps::Message, [this, call]() REQUIRES(loop().mutex()) {
    addClient(sd_bus_message_get_sender(call));
    receive(call);
  });
}

/// Every call makes its sender a client, to which events go on the bus. Listen does nothing else,
/// and its stub is small: all clients of a session may call it at the same time.
void ServiceBusConnection::onListen(sd_bus_message* call) {
  const std::shared_ptr<sd_bus_message> stub(stubOf(call));
  if (stub == nullptr) return refuse(call, SD_BUS_ERROR_NO_MEMORY, "no memory");
  checkSender(call, stub, SenderTrust::Keeps::Little, [this, stub]() REQUIRES(loop().mutex()) {
    addClient(sd_bus_message_get_sender(stub.get()));
    sd_bus_reply_method_return(stub.get(), nullptr);
  });
}

void ServiceBusConnection::checkSender(sd_bus_message* call, std::shared_ptr<sd_bus_message> kept,
                                       SenderTrust::Keeps keeps, Trusted trusted) {
  const char* sender = sd_bus_message_get_sender(call);
  const auto verdict = [kept = std::move(kept), trusted = std::move(trusted)](bool isTrusted) {
    if (isTrusted) return trusted();
    refuse(kept.get(), SD_BUS_ERROR_ACCESS_DENIED, "the service belongs to another user");
  };
  const bool hasRoom = keeps == SenderTrust::Keeps::Little || hasSpareDescriptors();
  if (!hasRoom || !trust_.check(loop().bus(), sender, verdict, keeps)) {
    refuse(call, SD_BUS_ERROR_LIMITS_EXCEEDED, kTooManyChecks);
  }
}

void ServiceBusConnection::onOpen(sd_bus_message* call) {
  if (sd_bus_message_has_signature(call, "h") <= 0) {
    return refuse(call, SD_BUS_ERROR_INVALID_ARGS, "Open takes one descriptor");
  }
  const auto request = std::make_shared<LineRequest>(call);
  if (request->stub == nullptr) return refuse(call, SD_BUS_ERROR_NO_MEMORY, "no memory");
  const std::shared_ptr<sd_bus_message> kept(request, request->stub.get());
  checkSender(call, kept, SenderTrust::Keeps::Message, [this, request]() REQUIRES(loop().mutex()) {
    requests_.push_back(request);
    loop().requestWork();
  });
}

void ServiceBusConnection::doMore() {
  std::vector<std::shared_ptr<LineRequest>> requests;
  {
    const ConnectionLoop::Hold hold(loop());
    requests.swap(requests_);
  }
  for (auto& request : requests) {
    answerRequest(*request);
    const ConnectionLoop::Hold hold(loop());
    request.reset();
  }
}

void ServiceBusConnection::answerRequest(const LineRequest& request) {
  const int opened = openLine_(request.handover, sd_bus_message_get_sender(request.stub.get()));
  const ConnectionLoop::Hold hold(loop());
  if (opened >= 0) {
    sd_bus_reply_method_return(request.stub.get(), "i", static_cast<int32_t>(::getpid()));
  } else {
    sd_bus_reply_method_errnof(request.stub.get(), -opened, "%s: %s", kNoLine,
                               std::strerror(-opened));
  }
  loop().afterSend();
}

// --- Clients -------------------------------------------------------------------------------------

void ServiceBusConnection::addClient(const std::string& name) {
  if (!clients_.insert(name).second) return;
  hasClients_ = true;
  changeMatch("AddMatch", name);
  // The client may have left before the bus added the match.
  const SdBusMessage call = newBusCall(loop().bus(), "NameHasOwner", name.c_str());
  if (call == nullptr) return;
  (void)calls().send(loop().bus(), call.get(), std::make_shared<Presence>(*this, name),
                     ConnectionLoop::Clock::now() + kDefaultTimeout);
}

void ServiceBusConnection::removeClient(const std::string& name) {
  if (clients_.erase(name) == 0) return;
  hasClients_ = !clients_.empty();
  changeMatch("RemoveMatch", name);
}

void ServiceBusConnection::changeMatch(const char* method, const std::string& client) {
  const std::string rule = std::string("type='signal',sender='") + kBusName + "',interface='" +
                           kBusName + "',member='NameOwnerChanged',arg0='" + client + "',arg2=''";
  const SdBusMessage call = newBusCall(loop().bus(), method, rule.c_str());
  if (call == nullptr) return;
  sd_bus_message_set_expect_reply(call.get(), 0);
  sd_bus_send(loop().bus(), call.get(), nullptr);
}

void ServiceBusConnection::onSignal(sd_bus_message* signal) {
  const char* name = nullptr;
  const char* before = nullptr;
  const char* after = nullptr;
  if (!isFromBus(signal) || sd_bus_message_is_signal(signal, kBusName, "NameOwnerChanged") <= 0) {
    return;
  }
  if (sd_bus_message_read(signal, "sss", &name, &before, &after) <= 0) return;
  if (*after == '\0') removeClient(name);
}

}  // namespace zq
