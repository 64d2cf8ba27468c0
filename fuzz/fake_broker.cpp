#include "fuzz/fake_broker.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "fuzz/input.h"

namespace zq::fuzz {
namespace {

using wire::Message;
using wire::Writer;

/// What the broker answers to a method of its own.
struct Answer {
  const char* method;
  const char* signature;
  Writer body;
};

const Answer* answerTo(const Message& call) {
  static const auto* const answers = new std::array{
      Answer{"Hello", "s", Writer().text(kClientName)},
      Answer{"AddMatch", "", Writer()},
      Answer{"RemoveMatch", "", Writer()},
      Answer{"GetNameOwner", "s", Writer().text(kServiceOwner)},
      Answer{"NameHasOwner", "b", Writer().number(4, 1)},
      Answer{"GetConnectionUnixUser", "u", Writer().number(4, ::geteuid())},
      Answer{"GetConnectionUnixProcessID", "u", Writer().number(4, ::getpid())},
      Answer{"RequestName", "u", Writer().number(4, 1)},
      Answer{"ReleaseName", "u", Writer().number(4, 1)},
      Answer{"Ping", "", Writer()},
  };
  static const auto* const stranger = new Answer{"", "u", Writer().number(4, ::geteuid() + 1)};
  const bool ofStranger = call.body.find(kStrangerName) != std::string::npos;
  if (call.member == "GetConnectionUnixUser" && ofStranger) return stranger;
  for (const Answer& answer : *answers) {
    if (call.member == answer.method) return &answer;
  }
  return nullptr;
}

/// Answers a call of a method that every bus has. False for any other message.
bool answerForBus(Connection& to, const Message& message) {
  const Answer* const answer = message.type == wire::Type::Call ? answerTo(message) : nullptr;
  if (answer == nullptr) return false;
  Message reply = Message::replyTo(message).with(answer->signature, answer->body.bytes());
  if (to.onBus()) reply.sender = message.destination;
  reply.destination = kClientName;
  to.send(reply);
  return true;
}

}  // namespace

void Connection::send(std::string_view bytes, std::span<const int> descriptors) {
  const std::lock_guard lock(sending_);
  peer_.send(bytes, descriptors);
}

void Connection::send(const Message& message, std::span<const int> descriptors) {
  send(wire::bytesOf(message), descriptors);
}

void Connection::answerWell(const Message& call) {
  Message reply = withNumber(Message::replyTo(call), kGoodAnswer);
  if (onBus_) reply.sender = kServiceOwner;
  send(reply);
}

void Connection::close() {
  peer_.shutdown(SHUT_RDWR);
}

std::pair<OwnedDescriptor, OwnedDescriptor> socketPair() {
  int ends[2];
  require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0);
  return {OwnedDescriptor(ends[0]), OwnedDescriptor(ends[1])};
}

Message withNumber(Message message, int32_t number) {
  return message.with("i", Writer().number(4, static_cast<uint32_t>(number)).bytes());
}

FakeBroker::FakeBroker(Handler handler)
    : handler_(std::move(handler)), listening_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  const std::string name = "perix-fuzz-" + std::to_string(::getpid());
  sockaddr_un address{AF_UNIX, {}};
  name.copy(address.sun_path + 1, name.size());  // behind a NUL: a name without a file
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  require(::bind(listening_.get(), reinterpret_cast<const sockaddr*>(&address), size) == 0);
  require(::listen(listening_.get(), 8) == 0);
  ::setenv("ZQBUS_ADDRESS", ("unix:abstract=" + name).c_str(), 1);
  std::thread([this] { acceptAll(); }).detach();
}

void FakeBroker::acceptAll() {
  for (;;) {
    OwnedDescriptor socket(::accept4(listening_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (socket) serve(std::move(socket), true);
  }
}

void FakeBroker::serveLine(OwnedDescriptor end) {
  serve(std::move(end), false);
}

void FakeBroker::serve(OwnedDescriptor socket, bool onBus) {
  const auto connection = std::make_shared<Connection>(wire::Peer(std::move(socket)), onBus);
  if (onBus) {
    const std::lock_guard lock(mutex_);
    newest_ = connection;
  }
  connection->peer().waitForEver();
  std::thread([this, connection] {
    wire::Peer& peer = connection->peer();
    if (peer.welcome()) {
      while (const auto message = peer.receive()) {
        if (!answerForBus(*connection, *message)) handler_(connection, &*message);
      }
    }
    connection->close();
    handler_(connection, nullptr);
  }).detach();
}

std::shared_ptr<Connection> FakeBroker::newest() {
  const std::lock_guard lock(mutex_);
  return newest_;
}

}  // namespace zq::fuzz

// Threads free what they hold in their own time, so leaks are looked for once, at the end, and not
// after each input.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  static char option[] = "-detect_leaks=0";
  static auto* const arguments = new std::vector<char*>(*argv, *argv + *argc);
  arguments->insert(arguments->begin() + 1, option);  // an option of the user's counts more
  *argc = static_cast<int>(arguments->size());
  arguments->push_back(nullptr);
  *argv = arguments->data();
  return 0;
}
