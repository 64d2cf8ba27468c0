/// @file
/// PerixProxy: the client's way to the local peripheral-device service.
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
#include "perix/pen_event.h"
#include "perix/records.h"

/// Everything that a client uses.
namespace zq {

class DeliveryGate;
class PenPort;
class PerixCall;
class ZQBusEventCallback;
class ZQBusMessage;
class ZQBusProxyInterface;
class ZQBusSerivceManager;

#pragma GCC visibility push(default)

/// The one object through which a client talks to the service. Get it with getInstance() before
/// each operation: getInstance() also reconnects after the service was away.
///
/// These rules hold for every operation below, unless its own text says otherwise:
///
/// - Threads. Call from any thread. Calls are served one after the other: an operation waits for
///   the operations of other threads to end first, then for its own answer.
/// - Blocking. An operation that asks the service waits at most 3000 ms for the answer; its own
///   text says where that differs. To this come: up to 3000 ms for each desktop id that it looks up
///   and does not know yet (CreatePipe and DestroyPipe have one for each handle, too); the waits of
///   the operations before it; and, where the service was away, 10 s for connecting. Without a
///   service it does not wait at all after that. The death of the service ends a wait at once.
/// - Results. An `int` is the service's own result, 0 for success, or -1 when there is no service,
///   no answer in time or an error for an answer. Strings, lists and maps are empty then.
///   PerixLastFailure() tells these apart, and how long each step took; the log has a line for
///   each. An argument that is missing from an answer, or has another type, reads as 0 or as empty;
///   a count that exceeds the records of an answer is reduced to their number.
/// - Desktops. `vmId` names a desktop by its string id. An unknown id is not an error here: the
///   service gets the integer id 0 and decides. The same holds when the look-up of the id fails;
///   PerixLastFailure() tells. An id holds for the process that gave it; the next is asked again.
/// - Lists. Each record is a `malloc` block of exactly the received length; list and records are
///   the caller's, to be released with the matching Free operation, or with `free` where there is
///   no such operation. An empty record of an answer ends the list.
/// - Exceptions. No operation throws; out of memory, it fails. Copying an argument that is passed
///   by value may throw in the caller. A thread that is cancelled (pthread_cancel) ends behind the
///   operation.
/// - Fork. In a child of a process that had used the library by then, every operation that asks the
///   service, or waits for callbacks, fails at once, with the result that it has without a service;
///   registering and unregistering return -1. A child that was forked before the first use
///   uses the library like any process.
/// - The process's end. Destructors of static objects and atexit handlers may call operations.
///
/// A class may derive from this one and override; operations use each other through the virtual
/// table. An override of GetVmIdInt runs under the lock of the calls: it may use its own tables and
/// call the function that it overrides, but an operation that waits for other operations would
/// never return. The same holds for an override of InitBroadcast. How the class grows without
/// breaking binaries: docs/extending.md.
class PerixProxy {
 public:
  /// The process's proxy, created and connected at first use. Never destroyed. Reconnects when the
  /// service was away and returns the same object whether or not that succeeds. Connecting takes a
  /// few round trips to the bus, and 10 s at most in all; threads that ask for it at the same time
  /// wait for one attempt and share its outcome. When no process owns the service's name and the
  /// bus knows how to start the service, connecting has the bus start it, within these 10 s. Null
  /// only when there was no memory for the object. Never throws.
  static PerixProxy* getInstance();

  PerixProxy();
  PerixProxy(const PerixProxy&) = delete;
  PerixProxy& operator=(const PerixProxy&) = delete;

  /// For objects that the client made itself; not inside a callback. Drops the connection and waits
  /// as AwaitDeliveries does. The part of a derived class is gone by then, so the owner of such an
  /// object calls AwaitDeliveries first.
  virtual ~PerixProxy();

  // --- Connection -------------------------------------------------------------------------------

  /// Connects when not connected: starts the log in the user's application data directory (and
  /// prints that path on standard output), finds the service and subscribes to its events. 0 when
  /// connected, -1 when there is no bus or no service: PerixLastFailure() tells. Blocks as
  /// getInstance(), which calls it.
  virtual int Init();
  /// Asks the service to reset itself.
  virtual int ResetService();
  /// Drops the connection and the event subscription; registered callbacks stay, and so do desktop
  /// ids until another process is connected to. Events and a death of that connection are ignored
  /// from then on; the handling of an earlier one goes on. The next getInstance() connects again.
  /// Calls neither the service nor the bus.
  virtual void ReleaseService();
  /// Passes one event of the service, desktop id, kind and record, to the callbacks registered for
  /// that kind. The bus calls it in its delivery context.
  virtual void HandleEvent(std::shared_ptr<ZQBusMessage> event);
  /// Subscribes to the bus-wide "mountedEvent", whose messages getInstance()'s HandleEvent receives
  /// too. Each new connection adds one subscription. Always 0.
  virtual int InitBroadcast();

  // --- Desktop sessions -------------------------------------------------------------------------

  /// Announces a desktop session. Waits at most 2000 ms. A collaborator in the session of another
  /// user announces nothing: -1 without a call, PerixFailure::NotAsked where there is a service.
  virtual int ConnectVm(VmInfo info);
  /// Announces the end of a session, without waiting for an answer: 0 once sent, even if the
  /// service refuses it; -1 without a service.
  virtual int DisconnectVm(std::string vmId);
  /// Starts the desktop's manager; waits and answers like DisconnectVm.
  virtual int StartVm(std::string vmId);

  /// The bus calls it when the service has died, on a thread of its own: it drops the connection,
  /// waits for the service to return (500 checks, 2000 ms apart; the first has the bus start the
  /// service, when the bus knows how), reconnects, calls every desktop
  /// callback with SERVICE_DIED and removes them all. Blocks for all that time, without blocking
  /// other operations: they connect meanwhile when the service is back. AwaitDeliveries ends it at
  /// its next check; then it does not reconnect and calls no callback.
  virtual void onServiceDeath();

  // --- Events -----------------------------------------------------------------------------------

  /// Calls every device callback with a device's event. Always 0.
  virtual int DeviceBaseInfoNotify(uint16_t code, CommonDevice* device);
  /// Calls every configuration-result callback. Always 0.
  virtual int ConfigNewDeviceResultNotify(uint16_t code, _ConfigNewDeviceResult* result);

  // --- Callbacks --------------------------------------------------------------------------------
  // These operations do not call the service. They wait while a callback runs, so never use them
  // inside a callback; once an operation has returned, the callback that it removed or replaced is
  // no longer called. Registrations outlive the connection; the callbacks of desktops are removed
  // at the service's death, after a call with SERVICE_DIED. `userdata` is the caller's and is
  // passed back unchanged. -1 without memory and in a forked child.

  /// Sets the callback of a desktop, in place of an earlier one. A null callback is stored too. 0.
  virtual int RegisterCallback(std::string vmId, DesktopCallback callback, void* userdata);
  /// Removes it. Returns 0 even if none was set.
  virtual int UnregisterCallback(std::string vmId);
  /// Sets the one printer callback, in place of an earlier one. -1 when either argument is null.
  virtual int RegisterPrinterCallback(PrinterCallback callback, void* userdata);
  /// Removes the printer callback. Always 0.
  virtual int UnregisterPrinterCallback();
  /// The userdata of the printer callback, null without one. Never waits.
  virtual void* CheckPrinterCallback();
  /// Adds a device callback, one per userdata; called in order of the userdata's address. The same
  /// userdata again replaces its callback. -1 when either argument is null.
  virtual int RegisterDeviceCallback(DeviceCallback callback, void* userdata);
  /// Removes the device callback of that userdata. 0, even if there was none.
  virtual int UnregisterDeviceCallback(void* userdata);
  /// Removes all device callbacks.
  virtual int UnregisterDeviceCallback();
  /// The smallest userdata of a device callback, null without one. Never waits.
  virtual void* CheckDeviceCallback();
  /// Sets the one callback for the answers of DoPerixCmd; null removes it. 0. Never waits, so the
  /// earlier callback may still be running when this has returned.
  virtual int RegisterCmdCallback(CmdCallback callback, void* userdata);
  /// Adds a callback for the outcome of new-device configurations; the rules of device callbacks.
  /// It receives every kind of event that has no other callback, events of joysticks too (code 16
  /// and the service's others), with the kind as its code.
  virtual int RegisterConfigNewDevResultCallback(ConfigNewDevResultCallback callback,
                                                 void* userdata);
  /// Removes the callback of that userdata. 0, even if there was none.
  virtual int UnregisterConfigNewDevResultCallback(void* userdata);
  /// Removes all configuration-result callbacks.
  virtual int UnregisterConfigNewDevResultCallback();

  // --- Desktop ids ------------------------------------------------------------------------------

  /// The service's desktops: string id to integer id.
  virtual std::map<std::string, int> GetVmList();
  /// Tells that a window of the desktop gained (1) or lost (0) the focus. Waits at most 500 ms for
  /// the answer, after up to 3000 ms for an id that is not known yet, and not for other operations.
  virtual int OnFocusChanged(std::string vmId, uint64_t windowId, uint32_t gainFocus);
  /// The integer id of a desktop, 0 when unknown. Asks the service once per desktop and remembers
  /// the id; asks each time for an unknown desktop. Does not wait for other operations, and does
  /// not connect. When the service was asked and has no id, PerixLastFailure() tells the cause.
  virtual unsigned int GetVmIdInt(std::string vmId);
  /// The string id that GetVmIdInt learned for an integer id, else empty. Asks no service.
  virtual std::string GetVmIdString(unsigned int id);

  // --- Data channels ----------------------------------------------------------------------------

  /// Creates the pipes that `handles` describe. Each block holds its handle's own vmId.
  virtual int CreatePipe(std::string vmId, std::list<_CHANNEL_HANDLE> handles);
  /// Destroys pipes; the arguments of CreatePipe.
  virtual int DestroyPipe(std::string vmId, std::list<_CHANNEL_HANDLE> handles);
  /// Reports the state of a numbered port channel.
  virtual int SetPortChannelStatus(std::string vmId, unsigned int port, int status);

  /// Tells that a port channel exists. Only the pen's port counts, whose name contains
  /// "space.port.2": `sendFn` is kept, SendPenData and SendPenEvent call it with (port name, size,
  /// bytes), and request numbers start anew. The bytes and the name are valid during that call
  /// only; an exception of it is logged; it may call any of these operations. Does not call the
  /// service and takes no lock: call the three port operations and the two that send from one
  /// thread, the user interface's.
  virtual void PortInit(
      const std::string& name, bool opened,
      std::function<unsigned int(const std::string&, unsigned int, unsigned char*)> sendFn);
  /// Tells that a port channel was opened or closed. As PortInit.
  virtual void PortStatus(const std::string& name, bool opened);
  /// Passes a block that arrived on a port channel; the block stays the caller's. Its first 16
  /// bytes are read; the first block that announces a pen sets the pen's id for good. As PortInit.
  virtual void PortData(const std::string& name, unsigned char* data, unsigned int size);
  /// Sends a pen event through the pen's port. `event` is a QTabletEvent that stays the caller's,
  /// of the major version of Qt that the library was built with: with another, use SendPenEvent.
  /// `type` is 0, the only kind; `x` and `y` are in pixels, and -1 stands for the event's own
  /// position. `vmId` is not used. 0 when a packet was built, even if it was not sent for lack of
  /// an open port or a pen device; -1 for another `type` and for a null `event`. Does not call the
  /// service and takes no lock, as PortInit.
  virtual int SendPenData(std::string vmId, void* event, int type, int x, int y);

  // --- Tokens and network quality ---------------------------------------------------------------

  /// Hands over the token of the redirected drives. -1 without a call for an empty one.
  virtual int UpdateDriveToken(std::string token);
  /// Reports a desktop's bandwidth; the service knows the units. Does not wait for an answer.
  virtual void SetBwInfo(const std::string& vmId, unsigned long long value1,
                         unsigned long long value2);
  /// Reports a desktop's stream quality. For `type` 1, `info` points to a uint32_t to be sent, or
  /// is null; for other types it is not read. Does not wait for an answer.
  virtual void SetRtcQosInfo(const std::string& vmId, unsigned int type, void* info);

  // --- Devices ----------------------------------------------------------------------------------

  /// The devices that can be used in a desktop. In the records of connected devices `vmIdText`
  /// holds the string id of their desktop, if it is known, cut to the field and without a NUL.
  virtual std::list<CommonDevice*> GetDeviceList(std::string vmId);
  /// The records of one device; empty when the service does not know it.
  virtual std::list<CommonDevice*> GetDeviceStatus(unsigned short devNumber);
  /// The devices of the user's own machine: GetDeviceList of no desktop.
  virtual std::list<CommonDevice*> GetLocalDeviceList();
  /// Frees the records of a list; the caller's own list then holds dangling pointers. Always 0.
  virtual int FreeDeviceList(std::list<CommonDevice*> list);

  /// Connects a device into a desktop. The device's new state follows as an event.
  virtual int ConnectDevice(std::string vmId, unsigned short devNumber);
  /// Disconnects a device from a desktop; its new state follows as an event.
  virtual int DisconnectDevice(std::string vmId, unsigned short devNumber);
  /// As above, for a device named by the service's 64-bit source id.
  virtual int ConnectDeviceBySrcId(std::string vmId, unsigned long long srcId);
  /// As DisconnectDevice, for a device named by its source id.
  virtual int DisconnectDeviceBySrcId(std::string vmId, unsigned long long srcId);
  /// Redirects a device; the service knows the meaning of `a` (a device number) and `b` (a mode).
  virtual int RedirectDevice(std::string vmId, unsigned short a, unsigned short b);
  /// Switches automatic connection of a type of devices; the low 16 bits of `autoConnect` count.
  virtual int SetAutoConnect(unsigned short type, int autoConnect);
  /// Whether a type of devices is connected automatically. 0 on failure too.
  virtual int GetAutoConnect(unsigned short type);
  /// Adds a device reached over the network, described by a kind and a text for the service.
  virtual int AddNetworkDevice(int n, std::string& s);
  /// Deletes such a device; the service knows the meaning of the texts.
  virtual int DeleteNetworkDevice(std::string& first, std::string& second);
  /// Reports the state of a USB redirection.
  virtual int SetUsbredirStatus(std::string vmId, UDevInfo info, unsigned short status);
  /// Does nothing: 0. Kept for clients that still call it.
  virtual int ConnectUsbredir(std::string vmId, UDevInfo info);
  /// As ConnectUsbredir.
  int DisconnectUsbredir(std::string vmId, UDevInfo info);

  // --- Device policies and properties -----------------------------------------------------------

  /// Stores `localPolicy` as the device's policy; `devNumber`, `name` and `detail` identify
  /// the device. `dev` stays the caller's.
  virtual int SetDeviceLocalPolicy(CommonDevice* dev);
  /// Sets the property of a vendor and product; the service knows the values.
  virtual int SetDevicePropertyWithVidPid(unsigned short vid, unsigned short pid,
                                          unsigned short property, int value);
  /// The property of a vendor and product; `property` is not sent. 0 on failure too.
  virtual int GetDevicePropertyWithVidPid(unsigned short vid, unsigned short pid,
                                          unsigned short property);
  /// As GetDevicePropertyWithVidPid, from the settings of the user's own machine.
  virtual int GetLocalDevicePropertyWithVidPid(unsigned short vid, unsigned short pid,
                                               unsigned short property);
  /// The turbo settings of a vendor and product, in the service's own format.
  virtual std::string GetTurboConfigWithVidPid(unsigned short vid, unsigned short pid);
  /// 0 on failure too.
  virtual int SetTurboConfigWithVidPid(unsigned short vid, unsigned short pid,
                                       const std::string& config);
  /// 0 on failure too.
  virtual int ResetAllDeviceProperty();
  /// The camera authorisation's state, the service's values.
  virtual int CheckCameraAuthStat();
  /// The policies per vendor and product. Release with FreePolicyList.
  virtual std::list<CommonVidPidPolicy*> GetPolicyListByVidPid();
  /// As FreeDeviceList.
  virtual int FreePolicyList(std::list<CommonVidPidPolicy*> list);

  // --- New devices ------------------------------------------------------------------------------
  // The answer means only that the service accepted the decision; its outcome follows as an event
  // for the configuration-result callbacks.

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

  /// Connects a printer into a desktop; its new state follows as an event.
  virtual int ConnectPrinter(std::string vmId, unsigned short devNumber);
  /// Disconnects a printer from a desktop; its new state follows as an event.
  virtual int DisconnectPrinter(std::string vmId, unsigned short devNumber);
  /// Adds a network printer. -1 without a call when address or name is empty.
  virtual int AddNetworkPrinter(const std::string& printerAddr, const std::string& printerName,
                                const std::string& description);
  /// Adds a network printer under the name "defaultPrinter". `printerAddr` is not null.
  virtual int AddNetworkPrinter(const char* printerAddr);
  /// Deletes the network printer of that name.
  virtual int DeleteNetworkPrinter(const std::string& printerName);
  /// -1 without a call when either name is empty.
  virtual int RenameNetworkPrinter(std::string oldName, std::string newName);

  /// Searches a host, "a.b.c.d" or "a.b.c.d:port", for shared printers. Waits at most 10 s. 0 fills
  /// `devices` anew; any other result leaves it as it was. 1 without a call for an invalid address.
  virtual int SearchSharePrinterDevice(const std::string& ipaddr,
                                       std::list<_SharePrinterDevice>& devices);
  /// Stops a search. Waits for other operations first, a search of this process among them.
  virtual int StopSearchSharePrinterDevice();
  /// Adds shared printers to the service's list.
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
  /// As AddLocalPrinter; an empty driver lets the service choose. Waits at most 30 s.
  virtual int AutoAddPrinter(const std::string& name, const std::string& address,
                             const std::string& driver);
  /// Deletes a printer of the user's machine.
  virtual int DeletePrinter(const std::string& name);
  /// Gives a printer of the user's machine another driver.
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
  /// Stores a button mapping of a vendor and product, in the service's own format.
  virtual int SetJoystickMapping(unsigned short vid, unsigned short pid,
                                 const std::string& mapping);
  /// Starts a calibration; the answer only says that the service has begun. The outcome follows as
  /// an event with code 16 (EventKind::JoystickCalibrated), which the configuration-result
  /// callbacks hear, not the joystick callbacks.
  virtual int CalibrationJoystick(unsigned short vid, unsigned short pid);
  /// Adds a joystick callback, one per userdata. JoystickResultNotify calls them in the order of
  /// their registration, and the library calls JoystickResultNotify for no event of the service:
  /// every kind of event that no other callback is for, the joysticks' kinds (16, 70, 71) among
  /// them, goes to the configuration-result callbacks. To hear of a calibration, register one with
  /// RegisterConfigNewDevResultCallback. The same userdata again replaces the callback. -1 when
  /// either argument is null.
  virtual int RegisterJoystickCallback(JoystickCallback callback, void* userdata);
  /// Removes the joystick callback of that userdata. 0, even if there was none.
  virtual int UnregisterJoystickCallback(void* userdata);
  /// Calls every joystick callback. Always 0.
  virtual int JoystickResultNotify(uint16_t code, void* result);

  // --- Commands and diagnosis -------------------------------------------------------------------

  /// Diagnoses a desktop. Waits at most 10 s. From the start of the operation `notify` is called
  /// with the progress, of this diagnosis and of others, in place of an earlier `notify`; null
  /// removes that. It stays the caller's: remove it with StopDiagnoseNotify before it is destroyed.
  /// When the result is not 0, it is removed already (as StopDiagnoseNotify does), unless another
  /// object has taken its place. May be called inside a callback.
  virtual int Diagnose(std::string vmId, PerixDiagnoseNotify* notify);
  /// Diagnoses one device; as Diagnose.
  virtual int DiagnoseDevice(std::string vmId, unsigned long long srcId,
                             PerixDiagnoseNotify* notify);
  /// Runs one of the service's self-tests.
  virtual int DoPerixTest(const std::string& name);
  /// Has the service run a command; the answer goes to the command callback.
  virtual int DoPerixCmd(const std::string& command);
  /// A text about the commands of DoPerixCmd.
  virtual std::string GetPerixCmdHelp();

  // --- Ends of lives ----------------------------------------------------------------------------

  /// Removes `notify`; an object that has taken its place stays. 0; -1 in a forked child. Waits for
  /// a running callback, so `notify` may be destroyed when this has returned. Inside a callback it
  /// does not wait: a running OnDiagnoseProgress goes on, and `notify` may be destroyed when the
  /// callback has returned.
  virtual int StopDiagnoseNotify(PerixDiagnoseNotify* notify);

  /// Drops the connection as ReleaseService does and waits until no event and no recovery of this
  /// object is running any more: then a derived object may be destroyed, provided that no other
  /// thread uses it. Waits for the operations of other threads, for a running callback for as long
  /// as that takes, and for a recovery until its next check (2 s, and 10 s for the bus's answer).
  /// The object cannot connect meanwhile. Does not wait inside a callback. Asks no service.
  virtual void AwaitDeliveries();

  // --- Pens of any toolkit ----------------------------------------------------------------------

  /// Sends a pen event through the pen's port, as SendPenData does for an event of Qt: the same
  /// packet, byte for byte. 0, even if the packet was not sent for lack of an open port or a pen
  /// device. Does not call the service and takes no lock, as PortInit.
  virtual int SendPenEvent(const PenEvent& event);

 private:
  friend class EventDispatch;
  friend class PerixCall;

  static PerixProxy* createInstance();
  static void BroadcastCallback(std::shared_ptr<ZQBusMessage> message);

  /// The service's interface: replaced under callMutex, tested and copied without it.
  class ServiceHandle {
   public:
    explicit operator bool() const { return set_; }
    /// Null in a forked child too.
    std::shared_ptr<ZQBusProxyInterface> get() const;
    void set(std::shared_ptr<ZQBusProxyInterface> interface);

   private:
    mutable std::mutex mutex_;  // held while a pointer is copied
    std::shared_ptr<ZQBusProxyInterface> interface_;
    std::atomic<bool> set_ = false;
  };

  template <typename Callback>
  struct CallbackSlot {
    Callback callback = nullptr;
    void* userdata = nullptr;
  };

  void reconnect();
  bool connectToService();
  void dropConnection();
  bool useService(const std::shared_ptr<ZQBusProxyInterface>& service);
  bool isServiceRegistered();
  bool serviceIsBack(int check);
  bool nobodyListens();
  void tellDesktopsOfDeath(int count);

  unsigned int knownId(const std::string& vmId);
  void rememberId(const ZQBusProxyInterface& service, unsigned int id, const std::string& vmId);
  void ownIds(const std::string& owner);
  void forgetIds();

  void noteFirstDeviceUserdata();
  void forgetDiagnoseNotify(PerixDiagnoseNotify* notify);

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
  std::mutex callbackMutex;                     // of the registries; held while callbacks run
  std::mutex idMapMutex;                        // of vmIdMap and idOwner; not held during calls
  std::mutex callMutex;                         // held during every call; locked before idMapMutex
  std::map<void*, ConfigNewDevResultCallback> configResultCallbacks;
  std::list<CallbackSlot<JoystickCallback>> joystickCallbacks;
  std::atomic<PerixDiagnoseNotify*> diagnoseNotify = nullptr;  // the client's
  std::string idOwner;                           // the process that gave the ids of vmIdMap
  std::atomic<uint64_t> connection = 0;          // the number of connections made so far
  std::atomic<unsigned int> failedAttempts = 0;  // to connect
  std::shared_ptr<DeliveryGate> deliveries;      // never null; shared with the bus's callbacks
};

#pragma GCC visibility pop

}  // namespace zq
