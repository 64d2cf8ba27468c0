// A service in this process that answers, hangs or refuses as its callers ask, and a client of it.
#pragma once

#include <gtest/gtest.h>

#include <future>

#include "tests/support/process.h"
#include "tests/support/recording_service.h"
#include "zqbus/zqbus.h"

namespace zq {

using Reply = std::shared_ptr<ZQBusMessage>;

inline std::shared_ptr<ZQBusProxyInterface> connect() {
  return ZQBusSerivceManager::initSync(-1)->getServiceProxyInterface(
      "perix", ZQBusSecurityFlags::TrustedPeer, 1);
}

using Listener = std::function<void(const Reply&)>;

template <typename Source>
bool listen(Source& source, Listener onEvent, const std::string& event = "perixevent") {
  return source.addEventListener(event, new ZQBusEventCallback(std::move(onEvent)),
                                 ZQBusSecurityFlags::TrustedPeer);
}
inline Listener counter(Watched<int>& heard) {
  return [&](const Reply&) { heard.increment(); };
}

/// How often the death of a service was reported.
struct Deaths : Watched<int> {
  explicit Deaths(ZQBusProxyInterface& service) {
    service.setDeathCallback([this] { increment(); });
  }
};

inline Reply call(ZQBusProxyInterface& service, const std::string& method,
                  const ZQBusMessage& arguments, int timeoutMs = 20000) {
  const auto request = service.makeMethodCallMessage(method);
  for (const auto& argument : arguments.arguments()) request->append(argument);
  return service.callWithReplyBlocking(request, timeoutMs);
}

inline std::string text(const Reply& reply) {
  std::string out;
  return reply->readString(out, 0);
}

inline void callAsynchronously(ZQBusProxyInterface& service, const std::string& method,
                               Listener onReply, int timeoutMs = -1) {
  service.callWithReply(service.makeMethodCallMessage(method), std::move(onReply), timeoutMs);
}

/// Answers "echo" with its arguments, keeps "hang" until it is released, fails "fail".
class Bus : public testing::Test {
 protected:
  Bus() {
    recorder->answerWith([this](const std::shared_ptr<ZQBusCall>& received) {
      const std::string& name = received->message().name();
      if (name == "hang") return hanging.append(received);
      if (name == "fail") return received->fail("no luck");
      received->reply(received->message());
    });
    service = connect();
  }
  void release() {
    for (const auto& held : hanging.take()) held->reply(message(int32_t{1}));
  }
  std::future<Reply> hang(int timeoutMs = 20000) {
    auto reply = soon([this, timeoutMs] { return call(*service, "hang", {}, timeoutMs); });
    EXPECT_TRUE(hanging.waitForSize(1));
    return reply;
  }

  Watched<std::vector<std::shared_ptr<ZQBusCall>>> hanging;
  ZQBusSerivceManager& manager = *ZQBusSerivceManager::initSync(-1);
  std::unique_ptr<RecordingService> recorder = std::make_unique<RecordingService>();
  std::shared_ptr<ZQBusProxyInterface> service;
};

}  // namespace zq
