#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <utility>
#include <vector>

#include "introspection.h"
#include "platform/zqbus/bus_log.h"
#include "platform/zqbus/run_handler.h"
#include "platform/zqbus/time_limit.h"
#include "sd_bus_open.h"
#include "service_bus_connection.h"
#include "service_line.h"
#include "spare_descriptors.h"
#include "zqbus/zqbus_service.h"

namespace zq {
namespace {

using Clock = ConnectionLoop::Clock;

constexpr std::size_t kMaxLines = 64;
// Of clients that have not been through the handshake.
constexpr std::size_t kMaxNewLines = 32;

constexpr std::chrono::milliseconds kFirstPause{100};
constexpr std::chrono::milliseconds kLongestPause{5000};
// The service's end waits so long at most for an attempt to come back.
constexpr std::chrono::milliseconds kAttemptPatience{1000};

class Service : public ZQBusService, public ServiceConnection::Owner {
 public:
  Service(const std::string& service, const ZQBusServiceDescription& description, Handler handler)
      : object_(std::make_shared<ServedObject>()), handler_(std::move(handler)) {
    object_->path = servicePath(service);
    object_->interface = serviceName(service);
    object_->introspection = introspectionXml(object_->interface, description);
  }
  ~Service() override;

  /// Connects to the bus and claims the name there; 0, or a negative error number and `error`.
  [[nodiscard]] int claim(Clock::time_point deadline, std::string& error);
  void sendEvent(const std::string& event, const ZQBusMessage& content) override;
  void sendBroadcast(const std::string& event, const ZQBusMessage& content) override;
  void setLostCallback(std::function<void()> onLost) override;

 private:
  using ServiceConnections = std::vector<std::shared_ptr<ServiceConnection>>;
  using Lines = std::vector<std::shared_ptr<ServiceLine>>;

  void handle(const std::shared_ptr<ZQBusCall>& call) override;
  void onLost(ServiceConnection& connection) override;
  int startOnBus(Clock::time_point deadline, SdBus connection);
  void comeBack();
  bool pause(std::chrono::milliseconds length);
  void tellIfLost();
  int openLine(int handover, const std::string& client);
  int roomForLine() const;
  std::size_t greetedLines() const;
  void stopEnded();

  const std::shared_ptr<ServedObject> object_;
  std::mutex handlerMutex_;  // one call after the other, whichever way they come
  const Handler handler_;
  std::mutex reserveMutex_;  // a connection may be lost before its own claim has ended
  DescriptorReserve reserve_;

  std::mutex mutex_;  // of all that follows; no loop's lock is taken under it
  std::condition_variable ending_;
  bool isEnding_ = false;
  std::shared_ptr<ServiceBusConnection> bus_;
  const ServiceConnection* claimed_ = nullptr;  // the connection on which the name was claimed last
  const ServiceConnection* lost_ = nullptr;     // the one that was lost last before it was
  bool isBusGone_ = false;                      // lost after it was, and did not come back at once
  Clock::time_point claimTime_;
  Lines lines_;
  ServiceConnections ended_;  // their threads cannot wait for themselves
  std::function<void()> onLost_;
};

Service::~Service() {
  ServiceConnections all;
  {
    const std::lock_guard lock(mutex_);
    isEnding_ = true;
    all = std::move(ended_);
    all.insert(all.end(), lines_.begin(), lines_.end());
    if (bus_ != nullptr) all.push_back(bus_);
  }
  ending_.notify_all();
  ServiceConnection::stop(all);
}

void Service::setLostCallback(std::function<void()> onLost) {
  {
    const std::lock_guard lock(mutex_);
    onLost_ = std::move(onLost);
  }
  tellIfLost();
}

/// Clients with a direct line can do without the bus.
void Service::tellIfLost() {
  std::function<void()> tell;
  {
    const std::lock_guard lock(mutex_);
    if (isBusGone_ && lines_.empty()) tell = std::exchange(onLost_, nullptr);
  }
  if (tell) tell();
}

void Service::handle(const std::shared_ptr<ZQBusCall>& call) {
  const std::lock_guard lock(handlerMutex_);
  runHandler(handler_, call);
}

void Service::onLost(ServiceConnection& connection) {
  bool isBus = false;
  {
    const std::lock_guard lock(mutex_);
    const auto line = std::find_if(lines_.begin(), lines_.end(),
                                   [&](const auto& one) { return one.get() == &connection; });
    isBus = &connection == claimed_;
    if (line != lines_.end()) {
      ended_.push_back(std::move(*line));
      lines_.erase(line);
    } else if (!isBus) {
      lost_ = &connection;
    }
  }
  if (isBus) return comeBack();
  tellIfLost();
}

/// Waits for those that have ended.
void Service::stopEnded() {
  ServiceConnections ended;
  {
    const std::lock_guard lock(mutex_);
    ended.swap(ended_);
  }
  ServiceConnection::stop(ended);
}

// --- The bus -------------------------------------------------------------------------------------

int Service::claim(Clock::time_point deadline, std::string& error) {
  SdBus connection = openSdBus(deadline, Descriptors::Carried, error);
  if (connection == nullptr) return -ENOTCONN;
  const int result = startOnBus(deadline, std::move(connection));
  if (result < 0) {
    error = object_->interface + (result == -EEXIST ? " is owned by another process"
                                                    : std::string(": ") + std::strerror(-result));
  }
  return result;
}

int Service::startOnBus(Clock::time_point deadline, SdBus connection) {
  const auto bus = std::make_shared<ServiceBusConnection>(
      *this, object_, std::move(connection),
      [this](int handover, const std::string& client) { return openLine(handover, client); });
  std::shared_ptr<ServiceBusConnection> previous;
  {
    const std::lock_guard lock(mutex_);
    if (isEnding_) return -ECANCELED;
    previous = bus_;
    if (previous != nullptr) ended_.push_back(previous);
    lost_ = nullptr;
    bus_ = bus;  // before the first call comes, whose handler may send an event
  }
  int result = bus->start();
  if (result >= 0) result = bus->claimName(deadline);
  {
    const std::lock_guard lock(mutex_);
    if (lost_ == bus.get() && result >= 0) result = -ECONNRESET;
    if (result >= 0) {
      isBusGone_ = false;
      claimed_ = bus.get();
      claimTime_ = Clock::now();
      return result;
    }
    if (std::erase(ended_, previous) > 0) bus_ = previous;
  }
  ServiceConnection::stop({bus});
  return result;
}

/// Claims the name again, on the thread of the connection that was lost.
void Service::comeBack() {
  std::chrono::milliseconds length{0};
  {
    const std::lock_guard lock(mutex_);
    if (Clock::now() - claimTime_ < kLongestPause) length = kFirstPause;
  }
  busLog(object_->interface + " has lost the bus");
  std::string error;
  int result = -ENOTCONN;
  while (result != -EEXIST && pause(length)) {
    {
      const std::lock_guard lock(reserveMutex_);
      reserve_.release();
      result = claim(Clock::now() + kAttemptPatience, error);
      reserve_.refill();
    }
    if (result >= 0) return busLog(object_->interface + " is on the bus again");
    {
      const std::lock_guard lock(mutex_);
      isBusGone_ = true;
    }
    tellIfLost();
    length = std::clamp(2 * length, kFirstPause, kLongestPause);
  }
  if (result == -EEXIST) busLog("cannot come back to the bus: " + error);
}

/// False when the service ends.
bool Service::pause(std::chrono::milliseconds length) {
  std::unique_lock lock(mutex_);
  return !ending_.wait_for(lock, length, [this] { return isEnding_; });
}

// --- Direct lines --------------------------------------------------------------------------------

std::size_t Service::greetedLines() const {
  return static_cast<std::size_t>(std::count_if(lines_.begin(), lines_.end(),
                                                [](const auto& line) { return line->greeted(); }));
}

int Service::roomForLine() const {
  if (isEnding_) return -ECANCELED;
  const std::size_t greeted = greetedLines();
  return greeted < kMaxLines && lines_.size() - greeted < kMaxNewLines ? 0 : -EMFILE;
}

int Service::openLine(int handover, const std::string& client) {
  stopEnded();
  if (!hasSpareDescriptors()) return -EMFILE;
  SdBus connection = makeLine(handover);
  if (connection == nullptr) return -EINVAL;
  const auto line =
      std::make_shared<ServiceLine>(*this, object_, std::move(connection), client, [this] {
        const std::lock_guard lock(mutex_);
        return greetedLines() <= kMaxLines;
      });
  {
    const std::lock_guard lock(mutex_);
    if (const int room = roomForLine(); room < 0) return room;
    lines_.push_back(line);
  }
  const int started = line->start();
  if (started < 0) {
    const std::lock_guard lock(mutex_);
    std::erase(lines_, line);
  }
  return started;
}

// --- Events --------------------------------------------------------------------------------------

void Service::sendEvent(const std::string& event, const ZQBusMessage& content) {
  Lines lines;
  std::shared_ptr<ServiceBusConnection> bus;
  {
    const std::lock_guard lock(mutex_);
    lines = lines_;
    bus = bus_;
  }
  bool isHeard = false;
  for (const auto& line : lines) {
    line->sendEvent(event, content);
    isHeard = isHeard || line->greeted();
  }
  // Everybody on the bus may listen there; so nothing goes that way that nobody needs to get so.
  if (!isHeard || bus->hasClients()) bus->sendEvent(event, content);
}

void Service::sendBroadcast(const std::string& event, const ZQBusMessage& content) {
  std::shared_ptr<ServiceBusConnection> bus;
  {
    const std::lock_guard lock(mutex_);
    bus = bus_;
  }
  bus->sendBroadcast(event, content);
}

}  // namespace

std::unique_ptr<ZQBusService> ZQBusService::claim(const std::string& service,
                                                  ZQBusServiceDescription description,
                                                  Handler handler, std::string& error) {
  auto made = std::make_unique<Service>(service, description, std::move(handler));
  return made->claim(Clock::now() + kDefaultTimeout, error) >= 0 ? std::move(made) : nullptr;
}

}  // namespace zq
