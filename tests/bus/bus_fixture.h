// A service in this process that answers, hangs or refuses as its callers ask, and a client of it.
#pragma once

#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/process.h"
#include "tests/support/recording_service.h"
#include "zqbus/zqbus.h"

namespace zq {

using Reply = std::shared_ptr<ZQBusMessage>;

inline std::shared_ptr<ZQBusProxyInterface> connect() {
  return ZQBusSerivceManager::initSync(-1)->getServiceProxyInterface(
      "perix", ZQBusSecurityFlags::TrustedPeer, 1);
}

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

/// A listener that counts what it hears.
inline ZQBusEventCallback* counter(Watched<int>& heard) {
  return new ZQBusEventCallback([&](const Reply&) { heard.change([](int& n) { ++n; }); });
}

/// Answers "echo" with its arguments, keeps "hang" until it is released, fails "fail".
class Bus : public testing::Test {
 protected:
  Bus() {
    recorder->answerWith([this](const std::shared_ptr<ZQBusCall>& received) {
      const std::string& name = received->message().name();
      if (name == "hang") return hanging.change([&](auto& calls) { calls.push_back(received); });
      if (name == "fail") return received->fail("no luck");
      received->reply(received->message());
    });
    service = connect();
  }
  void release() {
    hanging.change([](auto& calls) {
      for (const auto& one : calls) one->reply(message(int32_t{1}));
      calls.clear();
    });
  }
  std::future<Reply> hang(int timeoutMs = 20000) {
    auto reply = std::async(std::launch::async,
                            [this, timeoutMs] { return call(*service, "hang", {}, timeoutMs); });
    EXPECT_TRUE(hanging.wait([](const auto& calls) { return !calls.empty(); }));
    return reply;
  }

  Watched<std::vector<std::shared_ptr<ZQBusCall>>> hanging;
  std::unique_ptr<RecordingService> recorder = std::make_unique<RecordingService>();
  std::shared_ptr<ZQBusProxyInterface> service;
};

}  // namespace zq
