// PerixProxy: the client's way to the local peripheral-device service.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "perix/failure.h"
#include "perix/records.h"

namespace zq {

class PenPort;
class PerixCall;
class ZQBusEventCallback;
class ZQBusMessage;
class ZQBusProxyInterface;
class ZQBusSerivceManager;

#pragma GCC visibility push(default)

/// The one object through which a client talks to the service. Get it with getInstance() before
/// each operation: that is also what reconnects after the service was away.
///
/// What holds for every operation below, unless its own text says otherwise:
///
/// - Threads. Call from any thread. Calls are served one after the other: an operation waits for
///   the operations of other threads to end first, then for its own answer.
/// - Blocking. An operation that asks the service waits at most 3000 ms for the answer, and not at
///   all when the service is known to be away. The death of the service ends the wait at once.
/// - Results. An `int` is the service's own result, 0 for success, or -1 when there is no service,
///   no answer in time or an error for an answer. Strings, lists and maps are empty then.
///   PerixLastFailure() tells these apart; the log has a line for each.
/// - Desktops. `vmId` names a desktop by its string id. An unknown one is no error here: the
/// service
///   gets the integer id 0 and decides.
/// - Lists. Each record is a `malloc` block of exactly the received length; list and records are
///   the caller's, who releases them with the matching Free operation, or `free` where none is.
///   An empty record in the service's answer ends the list; the records before it are kept.
/// - Exceptions. None leaves an operation.
///
/// A class may derive from this one and override; operations use each other through the virtual
/// table. How the class grows without breaking binaries: docs/extending.md.
class PerixProxy {
 public:
  /// The process's proxy, created and connected at first use. Never destroyed. Reconnects when the
  /// service was away (a few round trips to the bus, at most 25 s each) and returns the same object
  /// whether or not that succeeds. Null only when there was no memory for it.
  static PerixProxy* getInstance();

  PerixProxy();
  PerixProxy(const PerixProxy&) = delete;
  PerixProxy& operator=(const PerixProxy&) = delete;

  /// Drops the connection. Only derived objects of the client's own are ever destroyed, and only
  /// after their connection was released.
  virtual ~PerixProxy();

  // --- Connection -------------------------------------------------------------------------------

  /// Connects when not connected: starts the log in the user's application data directory (and
  /// prints that path on standard output), finds the service and subscribes to its events. 0 when
  /// connected, -1 when there is no bus or no service. getInstance() calls it.
  virtual int Init();
  /// Asks the service to reset itself.
  virtual int ResetService();
  /// Drops the connection and the event subscription; registered callbacks stay. The next
  /// getInstance() connects again. Asks nobody.
  virtual void ReleaseService();
  /// Takes one event of the service: desktop id, kind and record to the callbacks registered for
  /// that kind. The bus calls it on its delivery thread.
  virtual void HandleEvent(std::shared_ptr<ZQBusMessage> event);
  /// Subscribes to the bus-wide "mountedEvent", whose messages HandleEvent takes too. Each new
  /// connection adds one subscription. Always 0.
  virtual int InitBroadcast();

  // --- Desktop sessions -------------------------------------------------------------------------

  /// Announces a desktop session. Waits at most 2000 ms. A collaborator in somebody else's session
  /// announces nothing: -1 without a call.
  virtual int ConnectVm(VmInfo info);
  /// Announces the end of a session, without waiting for an answer: 0 once sent, whatever the
  /// service makes of it; -1 without a service.
  virtual int DisconnectVm(std::string vmId);
  /// Starts the desktop's manager; waits and answers like DisconnectVm.
  virtual int StartVm(std::string vmId);

  /// What the bus calls when the service has died, on its delivery thread: drops the connection,
  /// waits for the service to return (500 checks, 2000 ms apart), reconnects, tells every desktop
  /// callback with SERVICE_DIED and forgets them. Blocks for all that time.
  virtual void onServiceDeath();

  // --- Events -----------------------------------------------------------------------------------

  /// Calls every device callback with a device's event. Always 0.
  virtual int DeviceBaseInfoNotify(uint16_t code, CommonDevice* device);
  /// Calls every configuration-result callback. Always 0.
  virtual int ConfigNewDeviceResultNotify(uint16_t code, _ConfigNewDeviceResult* result);

  // --- Callbacks --------------------------------------------------------------------------------
  // None of these asks the service. They wait while a callback runs, so never call them from
  // inside one. Registrations outlive the connection; those of desktops end with the service's
  // death, of which they are told with SERVICE_DIED. `userdata` is the caller's, handed back as is.

  /// Sets the callback of a desktop, in place of an earlier one. Null is taken as it is. Always 0.
  virtual int RegisterCallback(std::string vmId, DesktopCallback callback, void* userdata);
  /// Ends it. 0, also when there was none.
  virtual int UnregisterCallback(std::string vmId);
  /// Sets the one printer callback, in place of an earlier one. -1 when either argument is null.
  virtual int RegisterPrinterCallback(PrinterCallback callback, void* userdata);
  virtual int UnregisterPrinterCallback();
  /// The userdata of the printer callback, null without one. Never waits.
  virtual void* CheckPrinterCallback();
  /// Adds a device callback, one per userdata; called in order of the userdata's address. The same
  /// userdata again replaces its callback. -1 when either argument is null.
  virtual int RegisterDeviceCallback(DeviceCallback callback, void* userdata);
  virtual int UnregisterDeviceCallback(void* userdata);
  /// Removes all device callbacks.
  virtual int UnregisterDeviceCallback();
  /// The smallest userdata of a device callback, null without one. Never waits.
  virtual void* CheckDeviceCallback();
  /// Sets the one callback for the answers of DoPerixCmd; null ends it. Never waits.
  virtual int RegisterCmdCallback(CmdCallback callback, void* userdata);
  /// Adds a callback for the outcome of new-device configurations; the rules of device callbacks.
  virtual int RegisterConfigNewDevResultCallback(ConfigNewDevResultCallback callback,
                                                 void* userdata);
  virtual int UnregisterConfigNewDevResultCallback(void* userdata);
  /// Removes all configuration-result callbacks.
  virtual int UnregisterConfigNewDevResultCallback();

  // --- Desktop ids ------------------------------------------------------------------------------

  /// The service's desktops: string id to integer id.
  virtual std::map<std::string, int> GetVmList();
  /// Tells that a window of the desktop gained (1) or lost (0) the focus. Waits at most 500 ms, and
  /// not for other operations.
  virtual int OnFocusChanged(std::string vmId, uint64_t windowId, uint32_t gainFocus);
  /// The integer id of a desktop, 0 when unknown. Asks the service once per desktop and remembers;
  /// unknown ones are asked for each time. Does not wait for other operations.
  virtual unsigned int GetVmIdInt(std::string vmId);
  /// The string id that GetVmIdInt learned for an integer id, else empty. Asks nobody.
  virtual std::string GetVmIdString(unsigned int id);

  // --- Data channels ----------------------------------------------------------------------------

  /// Creates the pipes that `handles` describe. Each handle's own vmId goes into its block.
  virtual int CreatePipe(std::string vmId, std::list<_CHANNEL_HANDLE> handles);
  /// Destroys pipes; the arguments of CreatePipe.
  virtual int DestroyPipe(std::string vmId, std::list<_CHANNEL_HANDLE> handles);
  /// Reports the state of a numbered port channel.
  virtual int SetPortChannelStatus(std::string vmId, unsigned int port, int status);

  /// Tells that a port channel exists. Only the pen's port counts, whose name contains
  /// "space.port.2": `sendFn` is kept and called by SendPenData with (port name, size, bytes), and
  /// request numbers start anew. Asks nobody, takes no lock: call the three port operations and
  /// SendPenData from one thread, the user interface's.
  virtual void PortInit(
      const std::string& name, bool opened,
      std::function<unsigned int(const std::string&, unsigned int, unsigned char*)> sendFn);
  /// Tells that a port channel was opened or closed. As PortInit.
  virtual void PortStatus(const std::string& name, bool opened);
  /// Passes a block that arrived on a port channel and stays the caller's. Its first 16 bytes are
  /// read; the first block that announces a pen fixes the pen's id for good. As PortInit.
  virtual void PortData(const std::string& name, unsigned char* data, unsigned int size);
  /// Sends a pen event through the pen's port. `event` is a QTabletEvent that stays the caller's,
  /// `type` is 0, the only kind there is; `x` and `y` in pixels, -1 takes the event's own position.
  /// `vmId` is not used. 0 when a packet was built, sent or (while there is no open port or no pen
  /// device) not; -1 for another `type`. Asks nobody, takes no lock, as PortInit.
  virtual int SendPenData(std::string vmId, void* event, int type, int x, int y);

  // --- Tokens and network quality ---------------------------------------------------------------

  /// Hands over the token of the redirected drives. -1 for an empty one.
  virtual int UpdateDriveToken(std::string token);
  /// Reports a desktop's bandwidth; the service knows the units. Does not wait for an answer.
  virtual void SetBwInfo(const std::string& vmId, unsigned long long value1,
                         unsigned long long value2);
  /// Reports a desktop's stream quality. For `type` 1, `info` points to a uint32_t to be sent, or
  /// is null; for others it is not read. Does not wait for an answer.
  virtual void SetRtcQosInfo(const std::string& vmId, unsigned int type, void* info);

  // --- Devices ----------------------------------------------------------------------------------

  /// The devices that can be used in a desktop. In the records of connected ones `vmIdText` holds
  /// the string id of their desktop as far as it fits and is known, without a NUL of its own.
  virtual std::list<CommonDevice*> GetDeviceList(std::string vmId);
  /// The records of one device, none when the service does not know it.
  virtual std::list<CommonDevice*> GetDeviceStatus(unsigned short devNumber);
  /// The devices of the user's own machine: GetDeviceList of no desktop.
  virtual std::list<CommonDevice*> GetLocalDeviceList();
  /// Frees the records of a list; the caller's own list then holds dangling pointers. Always 0.
  virtual int FreeDeviceList(std::list<CommonDevice*> list);

  /// Connects a device into a desktop. The device's new state follows as an event.
  virtual int ConnectDevice(std::string vmId, unsigned short devNumber);
  virtual int DisconnectDevice(std::string vmId, unsigned short devNumber);
  /// As above, for a device named by the service's 64-bit source id.
  virtual int ConnectDeviceBySrcId(std::string vmId, unsigned long long srcId);
  virtual int DisconnectDeviceBySrcId(std::string vmId, unsigned long long srcId);
  /// Redirects a device; the service knows the meaning of `a` (a device number) and `b` (a mode).
  virtual int RedirectDevice(std::string vmId, unsigned short a, unsigned short b);
  /// Switches automatic connection of a type of devices; the low 16 bits of `autoConnect` count.
  virtual int SetAutoConnect(unsigned short type, int autoConnect);
  /// Whether a type of devices is connected automatically. 0 on failure too.
  virtual int GetAutoConnect(unsigned short type);
  /// Adds a device reached over the network, described by a kind and a text for the service.
  virtual int AddNetworkDevice(int n, std::string& s);
  virtual int DeleteNetworkDevice(std::string& first, std::string& second);
  /// Reports the state of a USB redirection.
  virtual int SetUsbredirStatus(std::string vmId, UDevInfo info, unsigned short status);
  /// Does nothing and asks nobody: 0. Kept for clients that still call it.
  virtual int ConnectUsbredir(std::string vmId, UDevInfo info);
  /// As ConnectUsbredir.
  int DisconnectUsbredir(std::string vmId, UDevInfo info);

  // --- Device policies and properties -----------------------------------------------------------

  /// Stores `localPolicy` as the device's policy; `devNumber`, `name` and `detail` say which
  /// device. `dev` stays the caller's.
  virtual int SetDeviceLocalPolicy(CommonDevice* dev);
  virtual int SetDevicePropertyWithVidPid(unsigned short vid, unsigned short pid,
                                          unsigned short property, int value);
  /// The property of a vendor and product; `property` is not sent, the service has one. 0 on
  /// failure too.
  virtual int GetDevicePropertyWithVidPid(unsigned short vid, unsigned short pid,
                                          unsigned short property);
  virtual int GetLocalDevicePropertyWithVidPid(unsigned short vid, unsigned short pid,
                                               unsigned short property);
  virtual std::string GetTurboConfigWithVidPid(unsigned short vid, unsigned short pid);
  /// 0 on failure too.
  virtual int SetTurboConfigWithVidPid(unsigned short vid, unsigned short pid,
                                       const std::string& config);
  /// 0 on failure too.
  virtual int ResetAllDeviceProperty();
  /// The camera authorisation's state, the service's values.
  virtual int CheckCameraAuthStat();
  virtual std::list<CommonVidPidPolicy*> GetPolicyListByVidPid();
  /// As FreeDeviceList.
  virtual int FreePolicyList(std::list<CommonVidPidPolicy*> list);

  // --- New devices ------------------------------------------------------------------------------
  // The answer only says that the service took the decision; its outcome follows as an event for
  // the configuration-result callbacks.

  /// Connects a newly plugged device. Waits at most 10 s.
  virtual int ConfigNewDeviceAsConnect(const std::string& vmId, unsigned long long sourceId,
                                       unsigned short type, unsigned short autoConnect,
                                       unsigned short popupCardConfig);
  /// Ignores a newly plugged device. Waits at most 2000 ms.
  virtual int ConfigNewDeviceAsIgnore(unsigned long long sourceId, unsigned short deviceType,
                                      unsigned short autoConnect, unsigned short popupCardConfig);
  /// Sends a disk command (mount, eject and the like; the service's values). Waits at most 10 s.
  virtual int ConfigUdisks2Command(const std::string& vmId, unsigned long long sourceId,
                                   unsigned short command);

  // --- Printers ---------------------------------------------------------------------------------

  /// The printers redirected into a desktop. Release each record with `free`.
  virtual std::list<PrinterDevice*> GetPrinterList(std::string vmId);
  /// The records of one printer. As above.
  virtual std::list<PrinterDevice*> GetPrinterStatus(unsigned short devNumber);
  /// The network printers. Release with FreeDeviceList.
  virtual std::list<CommonDevice*> GetNetworkPrinterList();

  virtual int ConnectPrinter(std::string vmId, unsigned short devNumber);
  virtual int DisconnectPrinter(std::string vmId, unsigned short devNumber);
  /// Adds a network printer. -1 without a call when address or name is empty.
  virtual int AddNetworkPrinter(const std::string& printerAddr, const std::string& printerName,
                                const std::string& description);
  /// Adds a network printer under the name "defaultPrinter". `printerAddr` is not null.
  virtual int AddNetworkPrinter(const char* printerAddr);
  virtual int DeleteNetworkPrinter(const std::string& printerName);
  /// -1 without a call when either name is empty.
  virtual int RenameNetworkPrinter(std::string oldName, std::string newName);

  /// Searches a host, "a.b.c.d" or "a.b.c.d:port", for shared printers. Waits at most 10 s. 0 fills
  /// `devices` anew; any other result leaves it as it was. 1 without a call for an invalid address.
  virtual int SearchSharePrinterDevice(const std::string& ipaddr,
                                       std::list<_SharePrinterDevice>& devices);
  /// Stops a search. Waits for other operations first, a search of this process among them.
  virtual int StopSearchSharePrinterDevice();
  /// Adds shared printers to those the service keeps.
  virtual int AddSharePrinterDevice(std::list<_SharePrinterDevice>& devices);
  /// Deletes the shared printer of that address and name.
  virtual int DeleteSharePrinterDevice(_SharePrinterDevice& device);
  /// A summary of all printers, in the service's own format. Waits at most 30 s.
  virtual std::string SearchAllPrinter();

  /// The drivers that fit, in the service's own format. Waits at most 30 s.
  virtual std::string GetPrinterDriverlList(const std::string& query);
  /// Adds a printer of the user's machine; the service knows the texts: name, address, driver.
  virtual int AddLocalPrinter(const std::string& name, const std::string& address,
                              const std::string& driver);
  /// As AddLocalPrinter, the service choosing what it can. Waits at most 30 s.
  virtual int AutoAddPrinter(const std::string& name, const std::string& address,
                             const std::string& driver);
  virtual int DeletePrinter(const std::string& name);
  virtual int ChangePrinterDriver(const std::string& name, const std::string& driver);
  /// Waits at most 10 s.
  virtual int PrintTestPage(const std::string& name);
  /// Sends a command for a desktop's printer. Waits at most 10 s.
  virtual int ConfigPrinterCommand(const std::string& vmId, unsigned long long sourceId,
                                   unsigned short command);

  // --- Joysticks --------------------------------------------------------------------------------

  /// Release with FreeDeviceList.
  virtual std::list<CommonDevice*> GetJoystickDevList();
  /// The button mapping of a vendor and product, in the service's own format.
  virtual std::string GetJoystickMappingList(unsigned short vid, unsigned short pid);
  virtual int SetJoystickMapping(unsigned short vid, unsigned short pid,
                                 const std::string& mapping);
  /// Starts a calibration; its outcome follows as an event.
  virtual int CalibrationJoystick(unsigned short vid, unsigned short pid);
  /// Adds a joystick callback, one per userdata, called in order of registration. The same userdata
  /// again replaces its callback. -1 when either argument is null.
  virtual int RegisterJoystickCallback(JoystickCallback callback, void* userdata);
  virtual int UnregisterJoystickCallback(void* userdata);
  /// Calls every joystick callback. Always 0.
  virtual int JoystickResultNotify(uint16_t code, void* result);

  // --- Commands and diagnosis -------------------------------------------------------------------

  /// Diagnoses a desktop. Waits at most 10 s. `notify` hears of the progress from now on, in place
  /// of an earlier one; null ends that. It stays the caller's, who keeps it alive until then.
  virtual int Diagnose(std::string vmId, PerixDiagnoseNotify* notify);
  /// Diagnoses one device; as Diagnose.
  virtual int DiagnoseDevice(std::string vmId, unsigned long long srcId,
                             PerixDiagnoseNotify* notify);
  /// Runs one of the service's self-tests.
  virtual int DoPerixTest(const std::string& name);
  /// Has the service run a command; what it answers goes to the command callback.
  virtual int DoPerixCmd(const std::string& command);
  /// What DoPerixCmd understands, in words.
  virtual std::string GetPerixCmdHelp();

 private:
  friend class PerixCall;

  static void BroadcastCallback(std::shared_ptr<ZQBusMessage> message);

  /// The service's interface: replaced under callMutex, tested and copied without it.
  class ServiceHandle {
   public:
    explicit operator bool() const { return set_; }
    std::shared_ptr<ZQBusProxyInterface> get() const;
    void set(std::shared_ptr<ZQBusProxyInterface> interface);

   private:
    mutable std::mutex mutex_;  // for no longer than a pointer's copy
    std::shared_ptr<ZQBusProxyInterface> interface_;
    std::atomic<bool> set_ = false;
  };

  template <typename Callback>
  struct CallbackSlot {
    Callback callback = nullptr;
    void* userdata = nullptr;
  };

  void reconnect();
  int connectToService();
  bool isServiceRegistered();
  bool nobodyListens();
  void tellDesktopsOfDeath(int count);

  bool dispatch(int kind, const std::string& vmId, uint8_t* payload, uint32_t length);
  bool handlePrinterEvent(int kind, PrinterDevice* printer, uint32_t length);
  bool handleDeviceEvent(int kind, CommonDevice* device, uint32_t length);
  void handleCommandResponse(int kind, CmdResponse* response);
  void handleDiagnoseProgress(const uint8_t* record);
  bool handleConfigResult(int kind, _ConfigNewDeviceResult* result, uint32_t length);
  void handleJoystickOrDesktopEvent(int kind, const std::string& vmId, uint8_t* payload);
  void noteFirstDeviceUserdata();

  void setDiagnoseNotify(PerixDiagnoseNotify* notify);

  static std::atomic<PerixProxy*> mPerixProxy;

  // Members keep their order; a new one goes to the end.
  ServiceHandle serviceProxy;                                  // null: not connected
  std::atomic<ZQBusSerivceManager*> serviceManager = nullptr;  // the bus library's
  std::map<std::string, CallbackSlot<DesktopCallback>> vmCallbacks;
  std::map<unsigned int, std::string> vmIdMap;
  std::atomic<CallbackSlot<PrinterCallback>> printerCallback;
  std::map<void*, DeviceCallback> deviceCallbacks;
  std::atomic<void*> firstDeviceUserdata = nullptr;  // key of the first of deviceCallbacks
  std::unique_ptr<PenPort> penPort;
  std::atomic<CallbackSlot<CmdCallback>> cmdCallback;
  ZQBusEventCallback* eventCallback = nullptr;  // the bus library's
  std::mutex callbackMutex;                     // the registries; held while callbacks run
  std::mutex idMapMutex;                        // vmIdMap; never held across a call
  std::mutex callMutex;  // every call, across its wait; taken before idMapMutex
  std::map<void*, ConfigNewDevResultCallback> configResultCallbacks;
  std::list<CallbackSlot<JoystickCallback>> joystickCallbacks;
  PerixDiagnoseNotify* diagnoseNotify = nullptr;  // the client's; under callbackMutex
};

#pragma GCC visibility pop

}  // namespace zq
