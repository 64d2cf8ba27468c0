#include "fuzz/fake_bus.h"

#include <cstdlib>
#include <filesystem>

namespace zq {
namespace {

ZQBusMessage nextReply;

ZQBusMessage idOf(const ZQBusMessage& request) {
  std::string name;
  ZQBusMessage reply;
  reply.appendInt32(request.readString(name, 0) == fuzz::kDesktop ? fuzz::kDesktopId : 0);
  return reply;
}

class FakeService : public ZQBusProxyInterface {
 public:
  std::shared_ptr<ZQBusMessage> makeMethodCallMessage(const std::string& method) override {
    return std::make_shared<ZQBusMessage>(ZQBusMessageType::MethodCall, method);
  }
  std::shared_ptr<ZQBusMessage> callWithReplyBlocking(std::shared_ptr<ZQBusMessage> message,
                                                      int) override {
    const bool lookUp = message->name() == "getVmListSize";
    return std::make_shared<ZQBusMessage>(lookUp ? idOf(*message) : nextReply);
  }
  void callWithReply(std::shared_ptr<ZQBusMessage>, ReplyFunction, int) override {}
  const std::string& owner() const override { return owner_; }
  bool addEventListener(const std::string&, ZQBusEventCallback* callback,
                        ZQBusSecurityFlags) override {
    listener_.reset(callback);
    return true;
  }
  void removeEventListener(const std::string&, ZQBusEventCallback*) override {}
  void setDeathCallback(std::function<void()>) override {}

 private:
  const std::string owner_ = ":1.1";
  std::unique_ptr<ZQBusEventCallback> listener_;
};

class FakeBus : public ZQBusSerivceManager {
 public:
  bool isServiceRegistered(const std::string&) override { return true; }
  std::shared_ptr<ZQBusProxyInterface> getServiceProxyInterface(const std::string&,
                                                                ZQBusSecurityFlags, int) override {
    return std::make_shared<FakeService>();
  }
  bool addEventListener(const std::string&, ZQBusEventCallback* callback,
                        ZQBusSecurityFlags) override {
    broadcasts_.reset(callback);
    return true;
  }
  uint64_t droppedEvents() const override { return 0; }
  void waitForCallbacks() override {}

 private:
  std::unique_ptr<ZQBusEventCallback> broadcasts_;
};

struct LogDirectory {
  LogDirectory() {
    char pattern[] = "/tmp/perix-fuzz-XXXXXX";
    path = ::mkdtemp(pattern);
    ::setenv("XDG_STATE_HOME", path.c_str(), 1);
  }
  ~LogDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
  std::filesystem::path path;
};

}  // namespace

ZQBusSerivceManager* ZQBusSerivceManager::initSync(int) {
  static FakeBus bus;
  return &bus;
}

void setZQBusLogSink(ZQBusLogSink) {}

PerixProxy& fuzz::connectedProxy() {
  static const LogDirectory directory;
  static PerixProxy& proxy = *PerixProxy::getInstance();
  return proxy;
}

void fuzz::setReply(ZQBusMessage reply) {
  nextReply = std::move(reply);
}

}  // namespace zq
