/// @file
/// For the unit tests of a client: the development service on a private bus.
///
/// A test makes one object, and the client's own zq::PerixProxy::getInstance() then reaches that
/// service. No session bus is needed; `dbus-daemon` must be installed. docs/testing.md shows a
/// whole test. The library is perix::testing, which a program links beside perix::perix.
///
/// Threads: any thread may call any function of an object, one at a time. No function may be called
/// inside a callback of the client's proxy. Every function blocks until the service has answered,
/// at most 10 s where no other time is stated. A function that fails throws PerixTestError, with
/// the reason in words, and no other exception.
///
/// Fork: every function fails in a forked child of the process that made the object. The child may
/// destroy its copy, which leaves the service, the bus and their files alone.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace zq {

/// Why the service, its bus or an operation of this header failed, in words.
class [[gnu::visibility("default")]] PerixTestError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A private bus and the development service on it, for the life of the object.
///
/// The constructor sets ZQBUS_ADDRESS in the environment of the process. A proxy of this process
/// finds the service when it connects next, so make the object before the client's first use of the
/// proxy, or let the proxy's connection end first. One object at a time in one process.
class [[gnu::visibility("default")]] PerixTestService {
 public:
  /// Where the service runs.
  enum class Place {
    /// On threads of this process: one process for the debugger, and the faults "crash" and
    /// "stop-reading" hit the test itself.
    OwnProcess,
    /// In a process of its own, which ends with this object, or with this process.
    Beside,
  };

  /// The service and its world.
  struct Options {
    Place place = Place::OwnProcess;  ///< where the service runs
    /// The world at the start, as a TOML file; empty: the office scenario of the installation.
    std::string scenarioFile;
    /// The world at the start as TOML; when not empty it counts, and not the file.
    std::string scenarioText;
    /// The program of Place::Beside; empty: the perix-devservice of the installation.
    std::string program;
  };

  /// A device that was plugged.
  struct Device {
    uint16_t number;    ///< its devNumber
    uint64_t sourceId;  ///< its source id
  };

  /// A call that the service received.
  struct Call {
    std::string method;     ///< for example "connectDevice"
    std::string arguments;  ///< a JSON list without blanks, for example [1,8]
    std::string answer;     ///< the same; empty when the call was not answered, or failed
    std::string error;      ///< the text of the error; empty without an error
  };

  /// Starts the bus and the service. Blocks until clients can call the service, 20 s at most.
  /// Also throws for mistakes in the scenario; what() then has a line for each, with its place.
  PerixTestService();
  /// As above, with a service and a world of the caller's choice.
  explicit PerixTestService(const Options& options);
  ~PerixTestService();
  PerixTestService(const PerixTestService&) = delete;
  PerixTestService& operator=(const PerixTestService&) = delete;

  /// The D-Bus address of the bus, for other processes; the same for the life of the object.
  const std::string& busAddress() const;

  // --- Life and death ---------------------------------------------------------------------------

  /// Ends the service: clients see its death. It dies without notice (SIGKILL) in a process of its
  /// own. Does nothing when it does not run.
  void stop();
  /// Starts the service again, with the world of the scenario. Does nothing when it runs.
  void start();
  /// Halts a service in a process of its own: it answers nothing until resume(). Throws for a
  /// service in this process, and for a service that does not run.
  void pause();
  /// Lets the service go on; throws as pause().
  void resume();
  /// The process that the service runs in; 0 when it does not run, also after its crash.
  int processId() const;
  /// Ends the bus.
  void stopBus();
  /// Starts the bus again at the same address, and returns when the service that ran at its end is
  /// back on it, 30 s at most. A service in a process of its own ends some time after the bus when
  /// no client has reached it: it is then started as start() does. A service that is paused is not
  /// awaited. Clients return by themselves.
  void startBus();

  // --- The world --------------------------------------------------------------------------------

  /// Plugs a device: the keys of one [[device]] table of a scenario, as TOML, for example
  /// `type = "camera"` and `name = "Desk camera"` on two lines.
  Device plug(const std::string& keys);
  /// Removes the device, out of its desktop first.
  void unplug(uint16_t number);
  /// Prints a document on a printer of the model.
  void print(uint16_t printer, const std::string& document);
  /// Sends any event, or broadcast, unchecked. `desktop` is the id of a desktop, `kind` a value of
  /// perix/events.h. `payload` (copied) may be null, for an event without one.
  void sendEvent(int32_t desktop, int32_t kind, const void* payload = nullptr,
                 std::size_t size = 0);
  /// As sendEvent, for a broadcast.
  void sendBroadcast(int32_t desktop, int32_t kind, const void* payload = nullptr,
                     std::size_t size = 0);
  /// The whole model, as a JSON object.
  std::string state();

  // --- Faults -----------------------------------------------------------------------------------

  /// The next `count` calls of `method` ("*": of any method) go wrong; with 0, all until
  /// clearFaults(). `kind` and `value` are those of docs/control-interface.md, for example "delay"
  /// and 500 ms, or "error".
  void setFault(const std::string& method, const std::string& kind, int64_t value = 0,
                int32_t count = 1);
  /// No call goes wrong any more.
  void clearFaults();

  // --- The calls that the service received -------------------------------------------------------

  /// The last 1000 calls, oldest first; only those of `method` when it is not empty.
  std::vector<Call> calls(const std::string& method = {});
  /// Waits until the list holds `count` answered calls of `method`, and returns these. Throws when
  /// they do not come within `timeout`, which counts from 1 ms to 24 days: the question takes a
  /// part of it.
  std::vector<Call> awaitCalls(const std::string& method, int32_t count = 1,
                               std::chrono::milliseconds timeout = std::chrono::seconds(10));
  /// Empties the list of calls.
  void clearCalls();

 private:
  class [[gnu::visibility("hidden")]] World;
  std::unique_ptr<World> world_;
};

}  // namespace zq
