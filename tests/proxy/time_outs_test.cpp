// How long each operation waits, told by a bus that never answers and does not let it wait. The
// bus library is left out of this program: what stands here takes its place.
#include <gtest/gtest.h>

#include "tests/proxy/wire_table.h"
#include "zqbus/zqbus.h"

namespace zq {
namespace {

int lastTimeoutMs;

std::shared_ptr<ZQBusMessage> timedOut() {
  return std::make_shared<ZQBusMessage>(ZQBusMessage::failed(ZQBusFailure::TimedOut, "too late"));
}

class SilentService : public ZQBusProxyInterface {
 public:
  std::shared_ptr<ZQBusMessage> makeMethodCallMessage(const std::string& method) override {
    return std::make_shared<ZQBusMessage>(ZQBusMessageType::MethodCall, method);
  }
  std::shared_ptr<ZQBusMessage> callWithReplyBlocking(std::shared_ptr<ZQBusMessage>,
                                                      int timeoutMs) override {
    lastTimeoutMs = timeoutMs;
    return timedOut();
  }
  void callWithReply(std::shared_ptr<ZQBusMessage>, ReplyFunction onReply, int timeoutMs) override {
    lastTimeoutMs = timeoutMs;
    onReply(timedOut());
  }
  const std::string& owner() const override { return owner_; }
  bool addEventListener(const std::string&, ZQBusEventCallback* callback,
                        ZQBusSecurityFlags) override {
    delete callback;
    return true;
  }
  void removeEventListener(const std::string&, ZQBusEventCallback*) override {}
  void setDeathCallback(std::function<void()>) override {}

 private:
  const std::string owner_ = ":1.1";
};

class SilentBus : public ZQBusSerivceManager {
 public:
  bool isServiceRegistered(const std::string&) override { return true; }
  std::shared_ptr<ZQBusProxyInterface> getServiceProxyInterface(const std::string&,
                                                                ZQBusSecurityFlags, int) override {
    return std::make_shared<SilentService>();
  }
  bool addEventListener(const std::string&, ZQBusEventCallback* callback,
                        ZQBusSecurityFlags) override {
    delete callback;
    return true;
  }
  uint64_t droppedEvents() const override { return 0; }
  void waitForCallbacks() override {}
};

class AnOperation : public testing::TestWithParam<NamedWireRow> {};

TEST_P(AnOperation, WaitsAsLongAsItSays) {
  const WireRow& row = GetParam().row;
  PerixProxy& proxy = *PerixProxy::getInstance();
  lastTimeoutMs = 0;
  const std::string result = row.run(proxy);
  EXPECT_EQ(lastTimeoutMs, row.timeoutMs);
  if (row.timeoutMs <= 0) return;
  EXPECT_EQ(result, row.failure);
  EXPECT_EQ(PerixLastFailure().failure, PerixFailure::TimedOut);
}

INSTANTIATE_TEST_SUITE_P(OfTheProxy, AnOperation, testing::ValuesIn(wireTable()),
                         [](const auto& row) { return row.param.name; });

}  // namespace

ZQBusSerivceManager* ZQBusSerivceManager::initSync(int) {
  static SilentBus bus;
  return &bus;
}

void setZQBusLogSink(ZQBusLogSink) {}

}  // namespace zq
