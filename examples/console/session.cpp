#include "session.h"

#include <QTimer>
#include <cstdlib>

#include "operations.h"
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

// The title of an outcome that an event brings.
QString outcomeTitle(uint16_t code, const QString& name) {
  switch (static_cast<EventKind>(code)) {
    case EventKind::ConfiguredConnect:
    case EventKind::ConfiguredIgnore:
    case EventKind::ConfigurationFailed:
      return "Configuration of " + name;
    default:
      return name + ", " + deviceEventText(code);
  }
}

// Some events want a person.
Severity severityOf(EventKind kind) {
  const bool urgent = kind == EventKind::NewDevice || kind == EventKind::DeviceRefused;
  return urgent ? Severity::Warning : Severity::Note;
}

}  // namespace

/// Tells the window which operation runs, for as long as the object lives.
class Session::Work {
 public:
  Work(Session& session, const QString& title) : session_(session) { emit session_.working(title); }
  Work(const Work&) = delete;
  Work& operator=(const Work&) = delete;
  ~Work() { emit session_.working({}); }

 private:
  Session& session_;
};

Session::Session() {
  qRegisterMetaType<ItemKind>();
  qRegisterMetaType<Item>();
  qRegisterMetaType<QVector<Item>>();
  qRegisterMetaType<Request>();
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
    Request request;
    request.item = desktopItem(desktop, false);
    if (!run(request)) sessions_.remove(desktop);
  }
  readItems();
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

int Session::onConfigResult(uint16_t code, _ConfigNewDeviceResult* result, void* self) {
  const bool success = result->isSuccess != 0;
  const QString words = textIn(result->code);
  static_cast<Session*>(self)->tell(success ? Severity::Success : Severity::Warning,
                                    success ? words : refusalText(words),
                                    outcomeTitle(code, isolated(textIn(result->name))));
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
  const QString name = isolated(item.name);
  tell(severityOf(static_cast<EventKind>(code)),
       QString("Device %1, %2, %3: %4")
           .arg(item.key, name, deviceEventText(code), item.state.toLower()));
}

void Session::hearPrinter(const PrinterDevice& printer) {
  const Item item = itemOf(printer, desktopOf(static_cast<uint32_t>(printer.vmId)));
  const QString name = isolated(item.name);
  tell(Severity::Note, QString("Printer %1, %2: %3").arg(item.key, name, item.state.toLower()));
  listPrinters();  // the event does not say whether the printer came, changed or went
}

// --- Operations ----------------------------------------------------------------------------------

void Session::refresh() {
  if (readDesktops() && readItems()) tell(Severity::Success, "done", "Refresh");
  emit handled();
}

void Session::request(const Request& request) {
  const bool done = run(request);
  if (done && request.kind == ItemKind::Desktop) {
    if (request.verb == Verb::Connect) sessions_.insert(request.item.key);
    if (request.verb == Verb::Disconnect) sessions_.remove(request.item.key);
  }
  emit handled();
  if (request.kind == ItemKind::Desktop) listDesktops();
}

bool Session::run(const Request& request) {
  const QString title = titleOf(request);
  const Work work(*this, title);
  const int result = perform(perix(), request);
  if (!answered(title)) return false;
  const bool done = result == 0;
  tell(done ? Severity::Success : Severity::Warning,
       done ? successText(request.verb) : refusalText(result), title);
  return done;
}

// --- Lists ---------------------------------------------------------------------------------------

bool Session::readDesktops() {
  const Work work(*this, "List desktops");
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

bool Session::readItems() {
  listDesktops();
  return listDevices() && listPrinters();
}

bool Session::listDevices() {
  const Work work(*this, "List devices");
  const std::list<CommonDevice*> devices = perix().GetLocalDeviceList();
  if (!answered("List devices")) return false;
  QVector<Item> items;
  for (const CommonDevice* block : devices) {
    const CommonDevice device = recordIn(block);
    items.append(itemOf(device, desktopOf(device.vmId)));
  }
  perix().FreeDeviceList(devices);
  emit listed(ItemKind::Device, items);
  return true;
}

bool Session::listPrinters() {
  const Work work(*this, "List printers");
  const std::list<PrinterDevice*> printers = perix().GetPrinterList("");
  if (!answered("List printers")) return false;
  QVector<Item> items;
  for (PrinterDevice* block : printers) {
    const PrinterDevice printer = recordIn(block);
    items.append(itemOf(printer, desktopOf(static_cast<uint32_t>(printer.vmId))));
    std::free(block);
  }
  emit listed(ItemKind::Printer, items);
  return true;
}

QString Session::desktopOf(uint32_t id) {
  if (id == 0) return {};
  return desktops_.value(id, QString("desktop %1").arg(id));
}

// --- Results -------------------------------------------------------------------------------------

/// Whether this thread's last operation got an answer; if not, tells why.
bool Session::answered(const QString& operation) {
  const PerixFailureReport report = PerixLastFailure();
  if (report.failure == PerixFailure::None) return true;
  tell(Severity::Failure, failureText(report), operation);
  check();
  return false;
}

void Session::tell(Severity severity, const QString& text, const QString& operation) {
  News news;
  news.severity = severity;
  news.text = text;
  news.operation = operation;
  emit told(news);
}

}  // namespace zq::console
