#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <exception>
#include <list>
#include <mutex>
#include <utility>
#include <vector>

#include "bus_log.h"
#include "descriptor_passing.h"
#include "endpoint.h"
#include "introspection.h"
#include "sd_bus_open.h"
#include "zqbus/zqbus_service.h"

namespace zq {
namespace {

constexpr std::size_t kMaxLines = 64;
constexpr int kSendBuffer = 96 << 10;

bool isStreamSocket(int descriptor) {
  const auto option = [descriptor](int name) {
    int value = -1;
    socklen_t size = sizeof value;
    return ::getsockopt(descriptor, SOL_SOCKET, name, &value, &size) == 0 ? value : -1;
  };
  return option(SO_DOMAIN) == AF_UNIX && option(SO_TYPE) == SOCK_STREAM;
}

/// Makes a line, whose other end it sends on `hatch`. Not the pair that the hatch belongs to: what
/// came through the bus, others may have a copy of.
SdBus makeLine(int hatch) {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0) {
    return nullptr;
  }
  const int handed = sendDescriptor(hatch, ends[1]);
  ::close(ends[1]);
  sd_bus* made = nullptr;
  sd_id128_t id{};
  int result = handed < 0 ? handed : sd_id128_randomize(&id);
  if (result >= 0) result = sd_bus_new(&made);
  SdBus line(made);
  if (result >= 0) result = sd_bus_set_fd(made, ends[0], ends[0]);
  if (result < 0) {
    ::close(ends[0]);
    return nullptr;
  }
  if (sd_bus_set_server(made, 1, id) < 0 || sd_bus_start(made) < 0) return nullptr;
  // sd-bus has taken what it could get. What lies in the socket cannot be sent together any more.
  ::setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof kSendBuffer);
  return line;
}

class Service : public ZQBusService, public Endpoint::Owner {
 public:
  Service(const std::string& service, const ZQBusServiceDescription& description, Handler handler)
      : service_(service),
        path_(servicePath(service)),
        interface_(serviceName(service)),
        xml_(introspectionXml(interface_, description)),
        handler_(std::move(handler)),
        bus_(std::make_shared<Endpoint>(*this, service, "", Endpoint::Backlog::Unbounded)) {}
  ~Service() override;

  [[nodiscard]] int claim(SdBus bus);
  void sendEvent(const std::string& event, const ZQBusMessage& content) override;
  void sendBroadcast(const std::string& event, const ZQBusMessage& content) override;
  void setLostCallback(std::function<void()> onLost) override;

 private:
  /// A client's wish for a direct line, while the bus is asked who the client is.
  struct Wish {
    Service* service;
    SdBusMessage call;
    SdBusSlot question;
    std::list<Wish>::iterator position;
  };
  using Lines = std::vector<std::shared_ptr<Endpoint>>;

  int intercept(Endpoint& endpoint, sd_bus_message* call) override;
  void handle(const std::shared_ptr<ZQBusCall>& call) override;
  void onLost(Endpoint& endpoint) override;
  int askWhoWishes(sd_bus_message* call);
  static int onUser(sd_bus_message* answer, void* wish, sd_bus_error* error);
  int openLine(sd_bus_message* call);
  static int onLastBusClientGone(sd_bus_track* clients, void* service);
  Lines lines();

  const std::string service_;
  const std::string path_;
  const std::string interface_;
  const std::string xml_;
  std::mutex handlerMutex_;  // one call after the other, whichever way they come
  const Handler handler_;
  const std::shared_ptr<Endpoint> bus_;
  // Under the lock of the bus's reader.
  std::list<Wish> wishes_;
  sd_bus_track* busClients_ = nullptr;  // those that use the service through the bus
  std::atomic<bool> hasBusClients_ = false;
  std::mutex linesMutex_;
  Lines lines_;
  Lines ended_;  // their threads cannot wait for themselves
  bool busLost_ = false;
  std::function<void()> onLost_;
};

Service::~Service() {
  bus_->stop();
  {
    const Reader::Hold hold(bus_->reader());
    wishes_.clear();
    sd_bus_track_unref(busClients_);
  }
  Lines all = lines();
  {
    const std::lock_guard lock(linesMutex_);
    all.insert(all.end(), ended_.begin(), ended_.end());
  }
  for (const auto& line : all) line->stop();
}

int Service::claim(SdBus bus) {
  return bus_->start(std::move(bus), [this](sd_bus* connection) {
    const int made = sd_bus_track_new(connection, &busClients_, &onLastBusClientGone, this);
    return made >= 0 ? sd_bus_request_name(connection, interface_.c_str(), 0) : made;
  });
}

void Service::setLostCallback(std::function<void()> onLost) {
  std::function<void()> tell;
  {
    const std::lock_guard lock(linesMutex_);
    onLost_.swap(onLost);
    if (busLost_ && lines_.empty()) tell = std::exchange(onLost_, nullptr);
  }
  if (tell) tell();
}

// --- Calls ---------------------------------------------------------------------------------------

int Service::intercept(Endpoint& endpoint, sd_bus_message* call) {
  if (sd_bus_message_is_method_call(call, kIntrospectableInterface, kIntrospect) > 0) {
    return sd_bus_reply_method_return(call, "s", xml_.c_str());
  }
  if (&endpoint != bus_.get()) return 0;
  if (sd_bus_message_is_method_call(call, kDirectInterface, kDirectOpen) > 0) {
    return askWhoWishes(call);
  }
  sd_bus_track_add_sender(busClients_, call);
  hasBusClients_ = true;
  return 0;
}

int Service::onLastBusClientGone(sd_bus_track*, void* service) {
  static_cast<Service*>(service)->hasBusClients_ = false;
  return 1;
}

void Service::handle(const std::shared_ptr<ZQBusCall>& call) {
  const std::lock_guard lock(handlerMutex_);
  try {
    handler_(call);
  } catch (const std::exception& error) {
    busLog("the handler of " + call->message().name() + " threw: " + error.what());
    call->fail("internal error");
  } catch (...) {
    busLog("the handler of " + call->message().name() + " threw what is no std::exception");
    call->fail("internal error");
  }
}

void Service::onLost(Endpoint& endpoint) {
  std::function<void()> tell;
  {
    const std::lock_guard lock(linesMutex_);
    const auto line = std::find_if(lines_.begin(), lines_.end(),
                                   [&](const auto& one) { return one.get() == &endpoint; });
    if (line != lines_.end()) {
      ended_.push_back(std::move(*line));
      lines_.erase(line);
    } else {
      busLost_ = true;
    }
    // Clients with a direct line can do without the bus.
    if (busLost_ && lines_.empty()) tell = std::exchange(onLost_, nullptr);
  }
  if (tell) tell();
}

// --- Direct lines --------------------------------------------------------------------------------

int Service::askWhoWishes(sd_bus_message* call) {
  const auto position = wishes_.emplace(wishes_.end());
  position->service = this;
  position->call.reset(sd_bus_message_ref(call));
  position->position = position;
  sd_bus_slot* question = nullptr;
  const int asked = sd_bus_call_method_async(
      bus_->reader().bus(), &question, kBusName, "/org/freedesktop/DBus", kBusName,
      "GetConnectionUnixUser", &onUser, &*position, "s", sd_bus_message_get_sender(call));
  position->question.reset(question);
  if (asked < 0) wishes_.erase(position);
  return asked < 0 ? asked : 1;
}

int Service::onUser(sd_bus_message* answer, void* userdata, sd_bus_error*) {
  Wish& wish = *static_cast<Wish*>(userdata);
  Service& service = *wish.service;
  const SdBusMessage call = std::move(wish.call);
  service.wishes_.erase(wish.position);
  uint32_t user = 0;
  const bool trusted =
      sd_bus_message_read(answer, "u", &user) > 0 && (user == ::geteuid() || user == 0);
  const int opened = trusted ? service.openLine(call.get()) : -EPERM;
  if (opened < 0) {
    return sd_bus_reply_method_errnof(call.get(), -opened, "no direct line: %s",
                                      std::strerror(-opened));
  }
  return sd_bus_reply_method_return(call.get(), "i", static_cast<int32_t>(::getpid()));
}

int Service::openLine(sd_bus_message* call) {
  Lines ended;
  const std::lock_guard lock(linesMutex_);
  ended.swap(ended_);
  for (const auto& line : ended) line->stop();
  if (lines_.size() >= kMaxLines) return -EMFILE;
  int hatch = -1;
  if (sd_bus_message_read(call, "h", &hatch) <= 0 || !isStreamSocket(hatch)) return -EINVAL;
  SdBus connection = makeLine(hatch);
  if (connection == nullptr) return -EINVAL;
  auto line = std::make_shared<Endpoint>(*this, service_, sd_bus_message_get_sender(call),
                                         Endpoint::Backlog::Bounded);
  const int started = line->start(std::move(connection));
  if (started >= 0) lines_.push_back(std::move(line));
  return started;
}

Service::Lines Service::lines() {
  const std::lock_guard lock(linesMutex_);
  return lines_;
}

// --- Events --------------------------------------------------------------------------------------

void Service::sendEvent(const std::string& event, const ZQBusMessage& content) {
  const Lines direct = lines();
  for (const auto& line : direct) line->sendEvent(event, content);
  // Everybody on the bus may listen there; so nothing goes that way that nobody needs to get so.
  if (direct.empty() || hasBusClients_) bus_->sendEvent(event, content);
}

void Service::sendBroadcast(const std::string& event, const ZQBusMessage& content) {
  bus_->sendBroadcast(event, content);
}

}  // namespace

std::unique_ptr<ZQBusService> ZQBusService::claim(const std::string& service,
                                                  ZQBusServiceDescription description,
                                                  Handler handler, std::string& error) {
  SdBus bus = openSdBus(Reader::Clock::now() + kDefaultTimeout, error);
  if (bus == nullptr) return nullptr;
  auto made = std::make_unique<Service>(service, description, std::move(handler));
  const int result = made->claim(std::move(bus));
  if (result >= 0) return made;
  error = serviceName(service) + (result == -EEXIST ? " is owned by another process"
                                                    : std::string(": ") + std::strerror(-result));
  return nullptr;
}

}  // namespace zq
