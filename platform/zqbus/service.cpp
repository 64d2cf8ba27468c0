#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <utility>
#include <vector>

#include "bus_log.h"
#include "codec.h"
#include "reader.h"
#include "sd_bus_open.h"
#include "zqbus/zqbus_service.h"

namespace zq {
namespace {

constexpr char kDoctype[] =
    "<!DOCTYPE node PUBLIC \"-//freedesktop//DTD D-BUS Object Introspection 1.0//EN\"\n"
    "\"http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd\">\n";
constexpr char kIntrospectable[] = "org.freedesktop.DBus.Introspectable";

void describeArguments(std::string& xml, const std::vector<ZQBusMethod::Argument>& arguments,
                       const char* direction) {
  for (const auto& argument : arguments) {
    xml += "   <arg type=\"" + argument.signature + "\" name=\"" + argument.name + '"' + direction +
           "/>\n";
  }
}

std::string introspectionXml(const std::string& interface,
                             const ZQBusServiceDescription& description) {
  std::string xml = std::string(kDoctype) + "<node>\n <interface name=\"" +
                    kIntrospectable +
                    "\">\n  <method name=\"Introspect\">\n   <arg name=\"xml\" type=\"s\" "
                    "direction=\"out\"/>\n  </method>\n </interface>\n <interface name=\"" +
                    interface + "\">\n";
  for (const ZQBusMethod& method : description.methods) {
    xml += "  <method name=\"" + method.name + "\">\n";
    describeArguments(xml, method.in, " direction=\"in\"");
    describeArguments(xml, method.out, " direction=\"out\"");
    xml += "  </method>\n";
  }
  for (const ZQBusMethod& event : description.events) {
    xml += "  <signal name=\"" + event.name + "\">\n";
    describeArguments(xml, event.in, "");
    xml += "  </signal>\n";
  }
  return xml + " </interface>\n</node>\n";
}

/// The connection of a service. Calls that are still to be answered share it, so it may outlive
/// the service; it is silent then.
class Core : public std::enable_shared_from_this<Core>, public Reader::Listener {
 public:
  Core(const std::string& service, const ZQBusServiceDescription& description,
       ZQBusService::Handler handler)
      : path_(servicePath(service)),
        interface_(serviceName(service)),
        xml_(introspectionXml(interface_, description)),
        handler_(std::move(handler)) {}

  [[nodiscard]] int claim(SdBus bus);
  void stop();
  void sendSignal(const char* path, const char* interface, const std::string& member,
                  const ZQBusMessage& content);
  void setLostCallback(std::function<void()> onLost);

  std::unique_ptr<Reader> reader;

 private:
  static int onMessage(sd_bus_message* message, void* core, sd_bus_error* error);
  void onConnectionLost() override { lost_ = true; }
  void onLockFree() override;
  void handle(const std::shared_ptr<ZQBusCall>& call);

  const std::string path_;
  const std::string interface_;
  const std::string xml_;
  const ZQBusService::Handler handler_;
  // Under the reader's lock.
  SdBusSlot object_;
  std::vector<std::shared_ptr<ZQBusCall>> received_;
  bool lost_ = false;
  std::function<void()> onLost_;
};

class ReceivedCall : public ZQBusCall {
 public:
  ReceivedCall(std::shared_ptr<Core> core, sd_bus_message* message);
  ~ReceivedCall() override;

  const ZQBusMessage& message() const override { return call_; }
  const std::string& sender() const override { return sender_; }
  void reply(const ZQBusMessage& result) override;
  void fail(const std::string& text) override { failWith(kErrorName, text); }
  void failUnknownMethod() override {
    failWith(SD_BUS_ERROR_UNKNOWN_METHOD, "no method " + call_.name());
  }

 private:
  void failWith(const char* name, const std::string& text);
  int sendReturn(const ZQBusMessage& result);
  int sendError(const char* name, const std::string& text);

  const std::shared_ptr<Core> core_;
  ZQBusMessage call_;
  std::string sender_;
  SdBusMessage message_;  // null once answered; under the reader's lock
};

// --- A call ---------------------------------------------------------------------------------------

ReceivedCall::ReceivedCall(std::shared_ptr<Core> core, sd_bus_message* message)
    : core_(std::move(core)),
      call_(ZQBusMessageType::MethodCall, sd_bus_message_get_member(message)),
      message_(sd_bus_message_ref(message)) {
  if (const char* sender = sd_bus_message_get_sender(message)) sender_ = sender;
  decodeArguments(message, call_);
}

ReceivedCall::~ReceivedCall() {
  const Reader::Hold hold(*core_->reader);
  message_.reset();
}

void ReceivedCall::reply(const ZQBusMessage& result) {
  const Reader::Hold hold(*core_->reader);
  if (message_ == nullptr) return;
  const int sent = sendReturn(result);
  if (sent < 0) sendError(kErrorName, std::string("cannot send the answer: ") + std::strerror(-sent));
  core_->reader->sent();
  message_.reset();
}

void ReceivedCall::failWith(const char* name, const std::string& text) {
  const Reader::Hold hold(*core_->reader);
  if (message_ == nullptr) return;
  sendError(name, text);
  core_->reader->sent();
  message_.reset();
}

int ReceivedCall::sendReturn(const ZQBusMessage& result) {
  sd_bus_message* answer = nullptr;
  int sent = sd_bus_message_new_method_return(message_.get(), &answer);
  const SdBusMessage owned(answer);
  if (sent >= 0) sent = encodeArguments(result, answer);
  return sent >= 0 ? sd_bus_send(nullptr, answer, nullptr) : sent;
}

int ReceivedCall::sendError(const char* name, const std::string& text) {
  const sd_bus_error error = SD_BUS_ERROR_MAKE_CONST(name, nullptr);
  sd_bus_message* answer = nullptr;
  int sent = sd_bus_message_new_method_error(message_.get(), &answer, &error);
  const SdBusMessage owned(answer);
  if (sent >= 0) sent = encodeArguments(ZQBusMessage::failed(ZQBusFailure::Service, text), answer);
  return sent >= 0 ? sd_bus_send(nullptr, answer, nullptr) : sent;
}

// --- The connection -------------------------------------------------------------------------------

int Core::claim(SdBus bus) {
  sd_bus_slot* slot = nullptr;
  int result = sd_bus_add_object(bus.get(), &slot, path_.c_str(), &onMessage, this);
  object_.reset(slot);
  if (result >= 0) result = sd_bus_request_name(bus.get(), interface_.c_str(), 0);
  if (result < 0) {
    object_.reset();
    return result;
  }
  reader = std::make_unique<Reader>(std::move(bus), *this);
  reader->start();
  return 0;
}

void Core::stop() {
  reader->stop();
  std::vector<std::shared_ptr<ZQBusCall>> unanswered;
  const Reader::Hold hold(*reader);
  object_.reset();
  unanswered.swap(received_);
}

int Core::onMessage(sd_bus_message* message, void* userdata, sd_bus_error*) {
  Core& core = *static_cast<Core*>(userdata);
  if (sd_bus_message_is_method_call(message, kIntrospectable, "Introspect") > 0) {
    return sd_bus_reply_method_return(message, "s", core.xml_.c_str());
  }
  const char* interface = sd_bus_message_get_interface(message);
  if (interface != nullptr && core.interface_ != interface) return 0;
  core.received_.push_back(std::make_shared<ReceivedCall>(core.shared_from_this(), message));
  return 1;
}

void Core::onLockFree() {
  std::vector<std::shared_ptr<ZQBusCall>> calls;
  std::function<void()> onLost;
  {
    const Reader::Hold hold(*reader);
    calls.swap(received_);
    if (lost_) onLost = std::exchange(onLost_, nullptr);
  }
  for (const auto& call : calls) handle(call);
  if (onLost) onLost();
}

void Core::handle(const std::shared_ptr<ZQBusCall>& call) {
  try {
    handler_(call);
  } catch (const std::exception& error) {
    busLog("the handler of " + call->message().name() + " threw: " + error.what());
    call->fail("internal error");
  }
}

void Core::sendSignal(const char* path, const char* interface, const std::string& member,
                      const ZQBusMessage& content) {
  const Reader::Hold hold(*reader);
  if (reader->lost()) return;
  sd_bus_message* signal = nullptr;
  int result =
      sd_bus_message_new_signal(reader->bus(), &signal, path, interface, member.c_str());
  const SdBusMessage owned(signal);
  if (result >= 0) result = encodeArguments(content, signal);
  if (result >= 0) result = sd_bus_send(reader->bus(), signal, nullptr);
  if (result < 0) busLog("cannot send " + member + ": " + std::strerror(-result));
  reader->sent();
}

void Core::setLostCallback(std::function<void()> onLost) {
  const Reader::Hold hold(*reader);
  onLost_.swap(onLost);
}

class Service : public ZQBusService {
 public:
  Service(const std::string& service, std::shared_ptr<Core> core)
      : path_(servicePath(service)), interface_(serviceName(service)), core_(std::move(core)) {}
  ~Service() override { core_->stop(); }

  void sendEvent(const std::string& event, const ZQBusMessage& content) override {
    core_->sendSignal(path_.c_str(), interface_.c_str(), event, content);
  }
  void sendBroadcast(const std::string& event, const ZQBusMessage& content) override {
    core_->sendSignal(kBroadcastPath, kBroadcastInterface, event, content);
  }
  void setLostCallback(std::function<void()> onLost) override {
    core_->setLostCallback(std::move(onLost));
  }

 private:
  const std::string path_;
  const std::string interface_;
  const std::shared_ptr<Core> core_;
};

}  // namespace

std::unique_ptr<ZQBusService> ZQBusService::claim(const std::string& service,
                                                  ZQBusServiceDescription description,
                                                  Handler handler, std::string& error) {
  SdBus bus = openSdBus(Reader::Clock::now() + kDefaultTimeout, error);
  if (bus == nullptr) return nullptr;
  auto core = std::make_shared<Core>(service, description, std::move(handler));
  const int result = core->claim(std::move(bus));
  if (result >= 0) return std::make_unique<Service>(service, std::move(core));
  error = serviceName(service) + (result == -EEXIST ? " is owned by another process"
                                                    : std::string(": ") + std::strerror(-result));
  return nullptr;
}

}  // namespace zq
