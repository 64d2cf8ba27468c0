#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

#include "introspection.h"
#include "platform/util/mutex.h"
#include "platform/zqbus/bus_log.h"
#include "platform/zqbus/run_handler.h"
#include "platform/zqbus/time_limit.h"
#include "platform/zqbus/trace.h"
#include "sd_bus_open.h"
#include "service_bus_connection.h"
#include "service_line.h"
#include "spare_descriptors.h"
#include "zqbus/zqbus_service.h"

namespace zq {
namespace {

using Clock = ConnectionLoop::Clock;

// A line takes a thread, four descriptors and 20 to 30 KiB.
constexpr std::size_t kMaxLines = 256;
constexpr std::size_t kMaxNewLines = 32;  // whose handshake is not complete

constexpr std::chrono::milliseconds kFirstPause{100};
constexpr std::chrono::milliseconds kLongestPause{5000};
// The service's destructor waits for a running attempt to reclaim the name, so this long at most.
constexpr std::chrono::milliseconds kAttemptTime{1000};

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
  [[nodiscard]] int claim(Clock::time_point deadline, std::string& error) EXCLUDES(mutex_);
  void sendEvent(const std::string& event, const ZQBusMessage& content) override EXCLUDES(mutex_);
  void sendBroadcast(const std::string& event, const ZQBusMessage& content) override
      EXCLUDES(mutex_);
  void setLostCallback(std::function<void()> onLost) override EXCLUDES(mutex_);

 private:
  using ServiceConnections = std::vector<std::shared_ptr<ServiceConnection>>;
  using Lines = std::vector<std::shared_ptr<ServiceLine>>;

  void handle(const std::shared_ptr<ZQBusCall>& call) override EXCLUDES(handlerMutex_);
  void onLost(ServiceConnection& connection) override EXCLUDES(mutex_);
  int startOnBus(Clock::time_point deadline, SdBus connection) EXCLUDES(mutex_);
  void reclaimName() EXCLUDES(mutex_, reserveMutex_);
  bool pause(std::chrono::milliseconds length) EXCLUDES(mutex_);
  void reportLoss() EXCLUDES(mutex_);
  int openLine(int handover, const std::string& client) EXCLUDES(mutex_);
  int roomForLine() const REQUIRES(mutex_);
  std::size_t readyLines() const REQUIRES(mutex_);
  void stopEnded() EXCLUDES(mutex_);

  const std::shared_ptr<ServedObject> object_;
  Mutex handlerMutex_;  // one call after the other, on whichever connection they come
  const Handler handler_;
  Mutex reserveMutex_;  // a connection may be lost before its own claim has ended
  DescriptorReserve reserve_ GUARDED_BY(reserveMutex_);

  // No loop's mutex is locked under this one.
  Mutex mutex_;
  ConditionVariable ending_;
  bool isEnding_ GUARDED_BY(mutex_) = false;
  std::shared_ptr<ServiceBusConnection> bus_ GUARDED_BY(mutex_);
  // The connection on which the name was claimed last.
  const ServiceConnection* claimed_ GUARDED_BY(mutex_) = nullptr;
  // The last connection that was lost before the name was claimed on it.
  const ServiceConnection* lost_ GUARDED_BY(mutex_) = nullptr;
  // The connection with the name was lost, and an attempt to reclaim the name found no bus, or
  // another owner.
  bool isBusGone_ GUARDED_BY(mutex_) = false;
  Clock::time_point claimTime_ GUARDED_BY(mutex_);
  Lines lines_ GUARDED_BY(mutex_);
  // The connections that have ended, until another thread than their own waits for their threads.
  ServiceConnections ended_ GUARDED_BY(mutex_);
  std::function<void()> onLost_ GUARDED_BY(mutex_);
};

Service::~Service() {
  ServiceConnections all;
  {
    const MutexLock lock(mutex_);
    isEnding_ = true;
    all = std::move(ended_);
    all.insert(all.end(), lines_.begin(), lines_.end());
    if (bus_ != nullptr) all.push_back(bus_);
  }
  ending_.notifyAll();
  ServiceConnection::stop(all);
}

void Service::setLostCallback(std::function<void()> onLost) {
  {
    const MutexLock lock(mutex_);
    onLost_ = std::move(onLost);
  }
  reportLoss();
}

/// Tells the owner that the bus is gone, once no client has a line: clients on lines need no bus.
void Service::reportLoss() {
  std::function<void()> report;
  {
    const MutexLock lock(mutex_);
    if (isBusGone_ && lines_.empty()) report = std::exchange(onLost_, nullptr);
  }
  if (report) report();
}

void Service::handle(const std::shared_ptr<ZQBusCall>& call) {
  const MutexLock lock(handlerMutex_);
  runHandler(handler_, call);
}

void Service::onLost(ServiceConnection& connection) {
  bool isBus = false;
  {
    const MutexLock lock(mutex_);
    const auto line = std::find_if(lines_.begin(), lines_.end(),
                                   [&](const auto& open) { return open.get() == &connection; });
    isBus = &connection == claimed_;
    if (line != lines_.end()) {
      ended_.push_back(std::move(*line));
      lines_.erase(line);
    } else if (!isBus) {
      lost_ = &connection;
    }
  }
  if (isBus) return reclaimName();
  reportLoss();
}

/// Waits for the threads of connections that have ended.
void Service::stopEnded() {
  ServiceConnections ended;
  {
    const MutexLock lock(mutex_);
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
    const MutexLock lock(mutex_);
    if (isEnding_) return -ECANCELED;
    previous = bus_;
    if (previous != nullptr) ended_.push_back(previous);
    lost_ = nullptr;
    bus_ = bus;  // before the first call comes: its handler may send an event
  }
  int result = bus->start();
  if (result >= 0) {
    result = bus->claimName(deadline, previous != nullptr ? previous->uniqueName() : "");
  }
  {
    const MutexLock lock(mutex_);
    if (lost_ == bus.get() && result >= 0) result = -ECONNABORTED;
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
void Service::reclaimName() {
  std::chrono::milliseconds length{0};
  {
    const MutexLock lock(mutex_);
    if (Clock::now() - claimTime_ < kLongestPause) length = kFirstPause;
  }
  busLog(object_->interface + " has lost the bus");
  std::string error;
  int result = -ENOTCONN;
  while (result != -EEXIST && pause(length)) {
    {
      const MutexLock lock(reserveMutex_);
      reserve_.release();
      result = claim(Clock::now() + kAttemptTime, error);
      reserve_.refill();
    }
    if (result >= 0) return busLog(object_->interface + " is on the bus again");
    // A bus that still names the lost connection, or has ended the next as well, is there.
    const bool isBusThere = result == -EBUSY || result == -ECONNABORTED;
    if (!isBusThere) {
      {
        const MutexLock lock(mutex_);
        isBusGone_ = true;
      }
      reportLoss();
    }
    length = std::clamp(2 * length, kFirstPause, kLongestPause);
  }
  if (result == -EEXIST) busLog("cannot claim the name again: " + error);
}

/// False when the service ends.
bool Service::pause(std::chrono::milliseconds length) {
  const auto end = Clock::now() + length;
  const MutexLock lock(mutex_);
  while (!isEnding_ && ending_.waitUntil(mutex_, end)) {
  }
  return !isEnding_;
}

// --- Direct lines --------------------------------------------------------------------------------

std::size_t Service::readyLines() const {
  return static_cast<std::size_t>(std::count_if(lines_.begin(), lines_.end(),
                                                [](const auto& line) { return line->isReady(); }));
}

int Service::roomForLine() const {
  if (isEnding_) return -ECANCELED;
  const std::size_t ready = readyLines();
  return ready < kMaxLines && lines_.size() - ready < kMaxNewLines ? 0 : -EMFILE;
}

int Service::openLine(int handover, const std::string& client) {
  stopEnded();
  if (!hasSpareDescriptorsForLine()) return -EMFILE;
  SdBus connection = makeLine(handover);
  if (connection == nullptr) return -EINVAL;
  const auto line =
      std::make_shared<ServiceLine>(*this, object_, std::move(connection), client, [this] {
        const MutexLock lock(mutex_);
        return readyLines() <= kMaxLines;
      });
  {
    const MutexLock lock(mutex_);
    if (const int room = roomForLine(); room < 0) return room;
    lines_.push_back(line);
  }
  const int started = line->start();
  if (started < 0) {
    const MutexLock lock(mutex_);
    std::erase(lines_, line);
  }
  return started;
}

// --- Events --------------------------------------------------------------------------------------

void Service::sendEvent(const std::string& event, const ZQBusMessage& content) {
  Lines lines;
  std::shared_ptr<ServiceBusConnection> bus;
  {
    const MutexLock lock(mutex_);
    lines = lines_;
    bus = bus_;
  }
  bool isHeard = false;
  for (const auto& line : lines) {
    line->sendEvent(event, content);
    isHeard = isHeard || line->isReady();
  }
  // Every client of the bus could listen: do not send an event there unless a client needs it.
  if (!isHeard || bus->hasClients()) bus->sendEvent(event, content);
}

void Service::sendBroadcast(const std::string& event, const ZQBusMessage& content) {
  std::shared_ptr<ServiceBusConnection> bus;
  {
    const MutexLock lock(mutex_);
    bus = bus_;
  }
  bus->sendBroadcast(event, content);
}

}  // namespace

std::unique_ptr<ZQBusService> ZQBusService::claim(const std::string& service,
                                                  ZQBusServiceDescription description,
                                                  Handler handler, std::string& error) {
  auto made = std::make_unique<Service>(service, description,
                                        traced(std::move(handler), service, description));
  if (made->claim(Clock::now() + kDefaultTimeout, error) < 0) return nullptr;
  return traced(std::move(made), service);
}

}  // namespace zq
