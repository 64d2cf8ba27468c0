#include "fake_bus.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

namespace zq {
namespace {

using wire::Message;
using wire::Peer;
using wire::Type;
using wire::Writer;

constexpr char kServiceName[] = ":1.1";

}  // namespace

FakeBus::FakeBus() : directory_("/tmp/perix-fake-bus-XXXXXX") {
  if (::mkdtemp(directory_.data()) == nullptr) throw std::runtime_error("no directory");
  sockaddr_un at{AF_UNIX, {}};
  const std::string path = directory_ + "/bus";
  path.copy(at.sun_path, sizeof at.sun_path - 1);
  listener_ = OwnedDescriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (::bind(listener_.get(), reinterpret_cast<const sockaddr*>(&at), sizeof at) != 0 ||
      ::listen(listener_.get(), 8) != 0) {
    throw std::runtime_error("cannot listen");
  }
  addressBefore_ = std::getenv("ZQBUS_ADDRESS");
  ::setenv("ZQBUS_ADDRESS", ("unix:path=" + path).c_str(), 1);
}

FakeBus::~FakeBus() {
  ::setenv("ZQBUS_ADDRESS", addressBefore_.c_str(), 1);
  std::filesystem::remove_all(directory_);
}

bool FakeBus::awaitConnection(std::chrono::milliseconds time) const {
  pollfd listener{listener_.get(), POLLIN, 0};
  return ::poll(&listener, 1, static_cast<int>(time.count())) == 1;
}

void FakeBus::accept() {
  service_.emplace(OwnedDescriptor(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC)));
  if (!service_->welcome()) throw std::runtime_error("the service does not greet");
  reply(question("Hello"), "s", Writer().text(kServiceName).bytes());
}

Message FakeBus::welcome() {
  accept();
  return question("RequestName");
}

void FakeBus::turnAway() {
  ::close(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
}

std::future<std::unique_ptr<ZQBusService>> FakeBus::claim(std::string* error,
                                                          ZQBusService::Handler handler) {
  return soon([error, handler = std::move(handler)] {
    std::string ignored;
    return ZQBusService::claim("perix", {}, handler, error != nullptr ? *error : ignored);
  });
}

std::unique_ptr<ZQBusService> FakeBus::start(ZQBusService::Handler handler) {
  auto service = claim(nullptr, std::move(handler));
  replyNumber(welcome(), 1);
  return service.get();
}

void FakeBus::send(Message message, const std::string& sender, std::span<const int> descriptors) {
  if (message.serial == 1) message.serial = ++serial_;
  message.destination = kServiceName;
  message.sender = sender;
  service_->send(message, descriptors);
}

void FakeBus::reply(const Message& call, const std::string& signature, std::string body) {
  send(Message::replyTo(call).with(signature, std::move(body)), wire::kDaemon);
}

Message FakeBus::receiveUntil(const std::function<bool(const Message&)>& wanted) {
  auto message = service_->receiveUntil(wanted);
  if (!message) throw std::runtime_error("the service says nothing more");
  return *message;
}

Message FakeBus::question(const std::string& method) {
  return receiveUntil([&](const Message& message) {
    return message.type == Type::Call && message.member == method;
  });
}

void FakeBus::ping() {
  send(Message::call("/", "org.freedesktop.DBus.Peer", "Ping"), ":1.99");
  receiveUntil([this](const Message& message) { return message.replySerial == serial_; });
}

Peer FakeBus::openLine(const std::string& client, bool isKnown) {
  LineRequest request;
  send(request, client);
  if (!isKnown) admit();
  if (answer().type != Type::Return) throw std::runtime_error("no line");
  return Peer(Peer(std::move(request.ours)).takeDescriptor());
}

}  // namespace zq
