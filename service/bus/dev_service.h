// The development service: the emulated "perix" and the control interface on the bus, one model
// behind them.
#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "service/bus/call_log.h"
#include "service/bus/faults.h"
#include "service/bus/method_table.h"
#include "service/model/events.h"
#include "service/model/scheduler.h"
#include "service/model/world.h"
#include "zqbus/zqbus_service.h"

namespace zq::devservice {

/// How the service ends itself.
enum class Ending {
  Stopped,  ///< the control interface asked for it
  BusLost,
};

/// On the bus from start() to its destruction. The bus's threads and the scheduler's take one lock
/// around all use of the model.
class DevService : private EventSink {
 public:
  struct Options {
    Scenario scenario;
    bool verbose = false;  ///< each call is written to standard error
    /// Called once at most per reason, on a thread of the service; must not destroy the service.
    std::function<void(Ending)> onEnd;
    PrinterBackendFactory printerBackend = modelPrinters;
  };

  explicit DevService(Options options);
  ~DevService() override;
  DevService(const DevService&) = delete;
  DevService& operator=(const DevService&) = delete;

  /// Claims both names. False with the reason in `error` when one cannot be had; then the service
  /// owns none.
  [[nodiscard]] bool start(std::string& error);

 private:
  /// Runs what the model has done later under the model's lock.
  class LockingTimer : public Timer {
   public:
    LockingTimer(Scheduler& scheduler, std::mutex& mutex) : scheduler_(scheduler), mutex_(mutex) {}
    void after(std::chrono::milliseconds delay, std::function<void()> task) override;

   private:
    Scheduler& scheduler_;
    std::mutex& mutex_;
  };

  // All of these need the model's lock, unless they say otherwise.
  void send(const Event& event) override;
  void broadcast(const Event& event) override;
  enum class Way { Event, Broadcast };
  void sendRaw(Way way, uint32_t desktop, int32_t kind, const std::optional<ZQBusBytes>& payload);

  /// Takes the lock.
  void onCall(const std::shared_ptr<ZQBusCall>& call);
  void note(const ZQBusCall& call);
  void serve(const std::shared_ptr<ZQBusCall>& call, const FaultPlan& plan);
  void respond(const std::shared_ptr<ZQBusCall>& call, const FaultPlan& plan, const Answer& answer);
  void flood(int64_t events);

  /// Takes the lock.
  void onControlCall(const std::shared_ptr<ZQBusCall>& call);
  std::vector<Method> controlMethods();
  std::vector<Method> modelMethods();
  std::vector<Method> faultMethods();
  std::vector<Method> lifeMethods();
  Answer plug(const Call& call);
  Answer sendFromControl(const Call& call, Way way);
  Answer setFault(const Call& call);

  const Options options_;
  std::mutex mutex_;  ///< the model's lock, for everything below that changes
  std::condition_variable ending_;
  bool isEnding_ = false;
  Scheduler scheduler_;
  LockingTimer timer_;
  World world_;
  Faults faults_;
  CallLog calls_;
  const MethodTable perix_;
  const MethodTable control_;
  std::unique_ptr<ZQBusService> controlService_;
  std::unique_ptr<ZQBusService> perixService_;
};

}  // namespace zq::devservice
