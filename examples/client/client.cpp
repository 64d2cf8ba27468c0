// A client of the peripheral service, from its first call to its recovery after the service died.
//
//     perix-example-client DESKTOP DEVICE-NUMBER
//
// It opens a session of the desktop, shows the devices, connects one, and then reports what it
// hears until it is interrupted. To watch it recover, kill the service and start it again.
#include <condition_variable>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <queue>
#include <string>

#include "perix/perix_proxy.h"

namespace {

// Callbacks run on a thread of the library's, which holds a lock meanwhile: a callback that
// registered another would wait for ever. So they pass on what they heard, and the main thread acts
// on it.
struct News {
  bool serviceDied;
  std::string text;
};

class Inbox {
 public:
  void put(News news) {
    const std::lock_guard lock(mutex_);
    news_.push(std::move(news));
    arrived_.notify_one();
  }

  News take() {
    std::unique_lock lock(mutex_);
    arrived_.wait(lock, [this] { return !news_.empty(); });
    News news = std::move(news_.front());
    news_.pop();
    return news;
  }

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::queue<News> news_;
};

int onDesktop(uint16_t code, void* /*data*/, void* userdata) {
  static_cast<Inbox*>(userdata)->put({code == zq::SERVICE_DIED, "desktop event"});
  return 0;
}

// The record belongs to the library and is gone after the return: copy what is needed.
int onDevice(uint16_t code, zq::CommonDevice* device, void* userdata) {
  static_cast<Inbox*>(userdata)->put({false, "device event " + std::to_string(code) + ": " +
                                                 device->name + ", status " +
                                                 std::to_string(device->status)});
  return 0;
}

// An operation's result is the service's own, or -1 when there was no answer; this tells which.
bool succeeded(const std::string& what, int result) {
  const zq::PerixFailureReport report = zq::PerixLastFailure();
  std::cout << "client: " << what << ": ";
  if (report.failure != zq::PerixFailure::None) {
    std::cout << "no answer (" << report.text << ")" << std::endl;
    return false;
  }
  std::cout << (result == 0 ? "done" : "refused with " + std::to_string(result)) << std::endl;
  return result == 0;
}

void showDevices(const std::string& desktop) {
  // Ask for the proxy before each operation: that is what reconnects after the service was away.
  zq::PerixProxy* perix = zq::PerixProxy::getInstance();
  const std::list<zq::CommonDevice*> devices = perix->GetDeviceList(desktop);
  for (const zq::CommonDevice* device : devices) {
    std::cout << "client:   " << device->devNumber << "  " << device->name
              << (device->status == zq::kDeviceConnected ? "  (connected)" : "") << std::endl;
  }
  perix->FreeDeviceList(devices);  // the records are ours since the list was returned
}

// Everything that a session needs. After the service died it is needed once more: the service has
// forgotten the session, and the library the desktop's callback.
void openSession(const std::string& desktop, unsigned short device, Inbox& inbox) {
  zq::PerixProxy::getInstance()->RegisterCallback(desktop, onDesktop, &inbox);
  zq::VmInfo info{};
  info.vmId = desktop;
  succeeded("session of " + desktop, zq::PerixProxy::getInstance()->ConnectVm(info));
  showDevices(desktop);
  succeeded("device " + std::to_string(device) + " into " + desktop,
            zq::PerixProxy::getInstance()->ConnectDevice(desktop, device));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: perix-example-client DESKTOP DEVICE-NUMBER\n";
    return EXIT_FAILURE;
  }
  const std::string desktop = argv[1];
  const auto device = static_cast<unsigned short>(std::strtoul(argv[2], nullptr, 0));

  Inbox inbox;
  // Device callbacks outlive the service, so this one is registered once.
  zq::PerixProxy::getInstance()->RegisterDeviceCallback(onDevice, &inbox);
  openSession(desktop, device, inbox);
  for (;;) {
    const News news = inbox.take();
    if (!news.serviceDied) {
      std::cout << "client: " << news.text << std::endl;
      continue;
    }
    // By now the service is back: the library has waited for it and reconnected.
    std::cout << "client: told that the service died (code " << zq::SERVICE_DIED
              << "); opening the session again" << std::endl;
    openSession(desktop, device, inbox);
  }
}
