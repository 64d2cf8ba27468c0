#include "session.h"

#include <QTimer>
#include <cstdlib>

#include "record_items.h"

namespace zq::console {
namespace {

constexpr int kCheckIntervalMs = 1000;

// The name under which the session itself hears of the service's death, desktops or none: no
// desktop's name is empty.
const QString kOwnName;

// Asking for the proxy anew is what reconnects after the service was away.
PerixProxy& perix() {
  return *PerixProxy::getInstance();
}

}  // namespace

Session::Session() {
  qRegisterMetaType<ItemKind>();
  qRegisterMetaType<Item>();
  qRegisterMetaType<QVector<Item>>();
  qRegisterMetaType<News>();
  qRegisterMetaType<ServiceState>();
  qRegisterMetaType<PerixProxy*>();
  connect(this, &Session::deviceHeard, this, &Session::hearDevice, Qt::QueuedConnection);
  connect(this, &Session::printerHeard, this, &Session::hearPrinter, Qt::QueuedConnection);
  connect(this, &Session::deathHeard, this, &Session::hearOfDeath, Qt::QueuedConnection);
}

Session::~Session() {
  // Each waits for a callback that runs; after the last there are none.
  for (const QString& name : watched_) perix().UnregisterCallback(name.toStdString());
  perix().UnregisterDeviceCallback(this);
  perix().UnregisterConfigNewDevResultCallback(this);
  if (perix().CheckPrinterCallback() == this) perix().UnregisterPrinterCallback();
}

void Session::start() {
  emit proxyReady(PerixProxy::getInstance());
  perix().RegisterDeviceCallback(onDeviceEvent, this);
  perix().RegisterPrinterCallback(onPrinterEvent, this);
  perix().RegisterConfigNewDevResultCallback(onConfigResult, this);
  watchDesktop(kOwnName);
  tell(Severity::Note, "Looking for the service");
  check();
  auto* const timer = new QTimer(this);
  connect(timer, &QTimer::timeout, this, &Session::check);
  timer->start(kCheckIntervalMs);
}

// --- Connection and death ------------------------------------------------------------------------

bool Session::isConnected() const {
  return state_ == ServiceState::Connected || state_ == ServiceState::Returned;
}

void Session::setState(ServiceState state) {
  state_ = state;
  emit stateChanged(state);
}

void Session::check() {
  // Until the library has told of a death it is looking for the service itself.
  if (state_ == ServiceState::Died && !toldOfDeath_) return;
  const bool connected = perix().Init() == 0;
  if (connected == isConnected()) return;
  if (connected) {
    takeUp();
  } else if (isConnected()) {
    toldOfDeath_ = false;
    setState(ServiceState::Died);
    tell(Severity::Failure, "The service died; waiting for it to return");
  }
}

void Session::takeUp() {
  const bool again = state_ == ServiceState::Died;
  tell(Severity::Success, again ? "Connected again" : "Connected to the service");
  setState(again ? ServiceState::Returned : ServiceState::Connected);
  if (!readDesktops()) return;
  for (const QString& desktop : QSet<QString>(sessions_)) {
    if (!openSession(desktop)) sessions_.remove(desktop);
  }
  listDesktops();
  listDevices();
  listPrinters();
}

// The service may be back before anybody noticed that it was away.
void Session::hearOfDeath() {
  if (isConnected()) {
    setState(ServiceState::Died);
    tell(Severity::Failure, "The service died");
  }
  toldOfDeath_ = true;
  watched_.clear();  // the library has forgotten the callbacks of desktops
  watchDesktop(kOwnName);
  check();
}

// --- Callbacks
// ------------------------------------------------------------------------------------ On the
// library's thread, which holds the registries' lock: they copy what they are given and pass it on
// to the session's own thread.

int Session::onDeviceEvent(uint16_t code, CommonDevice* device, void* self) {
  emit static_cast<Session*>(self)->deviceHeard(code, *device);
  return 0;
}

int Session::onPrinterEvent(uint16_t /*code*/, PrinterDevice* printer, void* self) {
  emit static_cast<Session*>(self)->printerHeard(*printer);
  return 0;
}

int Session::onConfigResult(uint16_t /*code*/, _ConfigNewDeviceResult* result, void* self) {
  const bool success = result->isSuccess != 0;
  const QString text =
      QString("Configuration of %1: %2").arg(textIn(result->name), textIn(result->code));
  static_cast<Session*>(self)->tell(success ? Severity::Success : Severity::Warning, text);
  return 0;
}

int Session::onDesktopEvent(uint16_t code, void* /*data*/, void* self) {
  if (code == SERVICE_DIED) return 0;  // onServiceEvent takes it, once for all desktops
  static_cast<Session*>(self)->tell(Severity::Note, QString("Desktop event %1").arg(code));
  return 0;
}

int Session::onServiceEvent(uint16_t code, void* /*data*/, void* self) {
  if (code == SERVICE_DIED) emit static_cast<Session*>(self)->deathHeard();
  return 0;
}

void Session::hearDevice(uint16_t code, const CommonDevice& device) {
  const Item item = itemOf(device, desktopOf(device.vmId));
  if (static_cast<EventKind>(code) == EventKind::DeviceRemoved) {
    emit removed(ItemKind::Device, item.key);
  } else {
    emit changed(ItemKind::Device, item);
  }
  tell(Severity::Note, QString("Device %1, %2, %3: %4")
                           .arg(item.key, item.name, deviceEventText(code), item.state.toLower()));
}

void Session::hearPrinter(const PrinterDevice& printer) {
  const Item item = itemOf(printer, desktopOf(static_cast<uint32_t>(printer.vmId)));
  tell(Severity::Note,
       QString("Printer %1, %2: %3").arg(item.key, item.name, item.state.toLower()));
  listPrinters();  // the event does not say whether the printer came, changed or went
}

// --- Operations ----------------------------------------------------------------------------------

void Session::refresh() {
  if (!readDesktops()) return;
  listDesktops();
  listDevices();
  listPrinters();
}

void Session::switchItem(ItemKind kind, const QString& key, const QString& desktop, bool on) {
  if (kind == ItemKind::Desktop) return switchSession(key, on);
  const std::string vmId = desktop.toStdString();
  const auto number = static_cast<unsigned short>(key.toUInt());
  const bool device = kind == ItemKind::Device;
  const QString what = QString(on ? "Connect %1 %2 to %3" : "Disconnect %1 %2 from %3")
                           .arg(device ? "device" : "printer", key, desktop);
  if (device) {
    succeeded(what,
              on ? perix().ConnectDevice(vmId, number) : perix().DisconnectDevice(vmId, number));
  } else {
    succeeded(what,
              on ? perix().ConnectPrinter(vmId, number) : perix().DisconnectPrinter(vmId, number));
  }
}

bool Session::openSession(const QString& desktop) {
  VmInfo info{};
  info.vmId = desktop.toStdString();
  return succeeded("Open session of " + desktop, perix().ConnectVm(info));
}

void Session::switchSession(const QString& desktop, bool open) {
  if (open) {
    if (openSession(desktop)) sessions_.insert(desktop);
  } else if (succeeded("End session of " + desktop, perix().DisconnectVm(desktop.toStdString()))) {
    sessions_.remove(desktop);
  }
  emit changed(ItemKind::Desktop, desktopItem(desktop, sessions_.contains(desktop)));
}

// --- Lists ---------------------------------------------------------------------------------------

bool Session::readDesktops() {
  const std::map<std::string, int> list = perix().GetVmList();
  if (!answered("List desktops")) return false;
  desktops_.clear();
  for (const auto& [name, id] : list) {
    desktops_[static_cast<uint32_t>(id)] = QString::fromStdString(name);
    watchDesktop(QString::fromStdString(name));
  }
  return true;
}

void Session::watchDesktop(const QString& name) {
  if (watched_.contains(name)) return;
  watched_.insert(name);
  perix().RegisterCallback(name.toStdString(), name == kOwnName ? onServiceEvent : onDesktopEvent,
                           this);
}

void Session::listDesktops() {
  QVector<Item> items;
  for (const QString& name : desktops_) items.append(desktopItem(name, sessions_.contains(name)));
  emit listed(ItemKind::Desktop, items);
}

void Session::listDevices() {
  const std::list<CommonDevice*> devices = perix().GetLocalDeviceList();
  if (!answered("List devices")) return;
  QVector<Item> items;
  for (const CommonDevice* block : devices) {
    const CommonDevice device = recordIn(block);
    items.append(itemOf(device, desktopOf(device.vmId)));
  }
  perix().FreeDeviceList(devices);
  emit listed(ItemKind::Device, items);
}

void Session::listPrinters() {
  const std::list<PrinterDevice*> printers = perix().GetPrinterList("");
  if (!answered("List printers")) return;
  QVector<Item> items;
  for (PrinterDevice* block : printers) {
    const PrinterDevice printer = recordIn(block);
    items.append(itemOf(printer, desktopOf(static_cast<uint32_t>(printer.vmId))));
    std::free(block);
  }
  emit listed(ItemKind::Printer, items);
}

QString Session::desktopOf(uint32_t id) {
  if (id == 0) return {};
  return desktops_.value(id, QString("desktop %1").arg(id));
}

// --- Results -------------------------------------------------------------------------------------

/// Whether this thread's last operation got an answer; if not, that is told.
bool Session::answered(const QString& what) {
  const PerixFailureReport report = PerixLastFailure();
  if (report.failure == PerixFailure::None) return true;
  tell(Severity::Failure, what + ": no answer (" + QString::fromStdString(report.text) + ")");
  check();
  return false;
}

bool Session::succeeded(const QString& what, int result) {
  if (!answered(what)) return false;
  if (result == 0) {
    tell(Severity::Success, what + ": done");
  } else {
    tell(Severity::Warning, QString("%1: the service refused (result %2)").arg(what).arg(result));
  }
  return result == 0;
}

void Session::tell(Severity severity, const QString& text) {
  News news;
  news.severity = severity;
  news.text = text;
  emit told(news);
}

}  // namespace zq::console
