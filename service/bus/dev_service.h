// The development service: the emulated "perix" and the control interface on the bus, with one
// model behind both.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/util/mutex.h"
#include "service/bus/call_log.h"
#include "service/bus/faults.h"
#include "service/bus/method_table.h"
#include "service/model/event_sink.h"
#include "service/model/scheduler.h"
#include "service/model/world.h"
#include "zqbus/zqbus_service.h"

namespace zq::devservice {

/// How the service ends itself.
enum class Ending {
  Stopped,  ///< the control interface asked for it
  BusLost,
};

/// The service is on the bus from start() to its destruction. The threads of the bus and of the
/// scheduler take one lock around every use of the model.
class DevService : private EventSink {
 public:
  struct Options {
    Scenario scenario;
    bool verbose = false;  ///< each call is written to standard error
    /// The service calls it once per reason at most, on a thread of its own. It must not destroy
    /// the service.
    std::function<void(Ending)> onEnd;
    PrinterBackendFactory printerBackend = modelPrinters;
  };

  explicit DevService(Options options);
  ~DevService() override;
  DevService(const DevService&) = delete;
  DevService& operator=(const DevService&) = delete;

  /// Claims both names. False, with the reason in `error`, when another process owns one of them;
  /// then the service owns neither.
  [[nodiscard]] bool start(std::string& error);

 private:
  /// Runs the delayed tasks of the model under the model's lock.
  class LockingTimer : public Timer {
   public:
    LockingTimer(Scheduler& scheduler, Mutex& mutex) : scheduler_(scheduler), mutex_(mutex) {}
    void after(std::chrono::milliseconds delay, std::function<void()> task) override;

   private:
    Scheduler& scheduler_;
    Mutex& mutex_;
  };

  void send(const Event& event) override REQUIRES(mutex_);
  void broadcast(const Event& event) override REQUIRES(mutex_);
  enum class Way { Event, Broadcast };
  void sendRaw(Way way, uint32_t desktop, int32_t kind, const std::optional<ZQBusBytes>& payload)
      REQUIRES(mutex_);

  /// A call under its number in the list of calls.
  struct NotedCall {
    std::shared_ptr<ZQBusCall> call;
    uint64_t number;
  };
  void onCall(const std::shared_ptr<ZQBusCall>& call) EXCLUDES(mutex_);
  NotedCall note(const std::shared_ptr<ZQBusCall>& call) REQUIRES(mutex_);
  void noteAnswer(const NotedCall& noted, const Answer& answer) REQUIRES(mutex_);
  void serve(const NotedCall& noted, const FaultPlan& plan) REQUIRES(mutex_);
  void respond(const NotedCall& noted, const FaultPlan& plan, const Answer& answer)
      REQUIRES(mutex_);
  void flood(int64_t events) REQUIRES(mutex_);

  void onControlCall(const std::shared_ptr<ZQBusCall>& call) EXCLUDES(mutex_);
  std::vector<Method> controlMethods();
  std::vector<Method> modelMethods();
  std::vector<Method> faultMethods();
  std::vector<Method> lifeMethods();
  Answer plug(const Call& call) REQUIRES(mutex_);
  Answer sendFromControl(const Call& call, Way way) REQUIRES(mutex_);
  Answer unknownMethod(const std::string& method) const;
  Answer setFault(const Call& call) REQUIRES(mutex_);
  Answer awaitCalls(const Call& call) REQUIRES(mutex_);
  void answerAwaitedCalls() REQUIRES(mutex_);

  const Options options_;
  Mutex mutex_;  ///< of the model
  ConditionVariable ending_;
  bool isEnding_ GUARDED_BY(mutex_) = false;
  Scheduler scheduler_;
  LockingTimer timer_;
  World world_ GUARDED_BY(mutex_);
  Faults faults_ GUARDED_BY(mutex_);
  CallLog calls_ GUARDED_BY(mutex_);
  /// A control call that waits until so many calls of a method are answered.
  struct AwaitedCalls {
    std::string method;
    std::size_t count;
    Respond respond;
  };
  std::vector<AwaitedCalls> awaited_ GUARDED_BY(mutex_);
  const MethodTable perix_;
  const MethodTable control_;
  std::unique_ptr<ZQBusService> controlService_ GUARDED_BY(mutex_);
  std::unique_ptr<ZQBusService> perixService_ GUARDED_BY(mutex_);
};

}  // namespace zq::devservice
