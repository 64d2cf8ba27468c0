#include <atomic>
#include <set>
#include <utility>

#include "trace.h"

namespace zq {
namespace {

using Clock = std::chrono::steady_clock;
using Kind = ZQBusTraceEntry::Kind;

ZQBusMessage withSecrets(const ZQBusMessage& message) {
  ZQBusMessage marked(ZQBusMessageType::MethodCall, message.name());
  for (const ZQBusArgument& argument : message.arguments()) {
    marked.append(argument);
    marked.markSecret();
  }
  return marked;
}

/// A call that is traced when it is answered, or when it goes without an answer.
class TracedCall : public ZQBusCall {
 public:
  TracedCall(std::shared_ptr<ZQBusCall> call, const std::string& service, bool isSecret)
      : call_(std::move(call)), entry_(beginTraceEntry(Kind::Call, service)) {
    entry_.way = call_->way();
    entry_.peer = call_->sender();
    entry_.content = isSecret ? withSecrets(call_->message()) : call_->message();
    entry_.reply = ZQBusMessage::failed(ZQBusFailure::TimedOut, "dropped without an answer");
  }
  ~TracedCall() override { answered(); }

  const ZQBusMessage& message() const override { return call_->message(); }
  const std::string& sender() const override { return call_->sender(); }
  ZQBusWay way() const override { return call_->way(); }

  void reply(const ZQBusMessage& result) override {
    call_->reply(result);
    answered([&result] { return withArgumentsOf(result, ZQBusMessageType::MethodReturn, {}); });
  }
  void fail(const std::string& text) override {
    call_->fail(text);
    answered([&text] { return ZQBusMessage::failed(ZQBusFailure::Service, text); });
  }
  void failUnknownMethod() override {
    call_->failUnknownMethod();
    answered([] { return ZQBusMessage::failed(ZQBusFailure::Service, "no such method"); });
  }
  void breakConnection(std::string_view bytes) override {
    call_->breakConnection(bytes);
    answered();
  }

 private:
  template <typename Reply>
  void answered(Reply reply) {
    if (isTold_.exchange(true)) return;
    entry_.reply = reply();
    entry_.duration = Clock::now().time_since_epoch() - entry_.monotonic;
    trace(entry_);
  }
  void answered() {
    answered([this] { return entry_.reply; });
  }

  const std::shared_ptr<ZQBusCall> call_;
  ZQBusTraceEntry entry_;
  std::atomic<bool> isTold_ = false;
};

class TracedService : public ZQBusService {
 public:
  TracedService(std::unique_ptr<ZQBusService> made, const std::string& service)
      : made_(std::move(made)), service_(service) {}

  void sendEvent(const std::string& event, const ZQBusMessage& content) override {
    traceSent(Kind::Event, event, content);
    made_->sendEvent(event, content);
  }
  void sendBroadcast(const std::string& event, const ZQBusMessage& content) override {
    traceSent(Kind::Broadcast, event, content);
    made_->sendBroadcast(event, content);
  }
  void setLostCallback(std::function<void()> onLost) override {
    made_->setLostCallback(std::move(onLost));
  }

 private:
  void traceSent(Kind kind, const std::string& event, const ZQBusMessage& content) const {
    ZQBusTraceEntry entry = beginTraceEntry(kind, service_);
    entry.isSent = true;
    entry.content = withArgumentsOf(content, ZQBusMessageType::Event, event);
    trace(std::move(entry));
  }

  const std::unique_ptr<ZQBusService> made_;
  const std::string service_;
};

}  // namespace

std::unique_ptr<ZQBusService> traced(std::unique_ptr<ZQBusService> made,
                                     const std::string& service) {
  if (made == nullptr || !isTracing()) return made;
  return std::make_unique<TracedService>(std::move(made), service);
}

ZQBusService::Handler traced(ZQBusService::Handler handler, const std::string& service,
                             const ZQBusServiceDescription& description) {
  if (!isTracing()) return handler;
  std::set<std::string> secrets;
  for (const ZQBusMethod& method : description.methods) {
    if (method.secret) secrets.insert(method.name);
  }
  return [handler = std::move(handler), service, secrets](std::shared_ptr<ZQBusCall> call) {
    const bool isSecret = secrets.contains(call->message().name());
    handler(std::make_shared<TracedCall>(std::move(call), service, isSecret));
  };
}

}  // namespace zq
