// The opening of direct lines: what a service makes of odd wishes and handshakes, and a client of
// odd answers and of what comes instead of a line.
#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "fuzz/input.h"
#include "fuzz/service_world.h"
#include "zqbus/zqbus.h"

namespace zq::fuzz {
namespace {

using namespace std::string_literals;
using wire::Message;
using wire::Peer;
using wire::Writer;

constexpr int kPatienceMs = 60'000;
constexpr int kMostDescriptors = 3;
// Far more than are in use, with those that are still being closed.
constexpr int kLeaked = 300;

OwnedDescriptor streamSocket() {
  return socketPair().first;  // the other end is closed
}
OwnedDescriptor datagramSocket() {
  return OwnedDescriptor(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
}
OwnedDescriptor file() {
  return OwnedDescriptor(::open("/dev/null", O_RDWR | O_CLOEXEC));
}
OwnedDescriptor event() {
  return OwnedDescriptor(::eventfd(0, EFD_CLOEXEC));
}

/// Some descriptors, `good` among them or not.
std::vector<OwnedDescriptor> anyDescriptors(FuzzedDataProvider& input,
                                            const OwnedDescriptor& good) {
  constexpr std::array kMakers = {streamSocket, datagramSocket, file, event};
  std::vector<OwnedDescriptor> all;
  for (int left = input.ConsumeIntegralInRange(0, kMostDescriptors); left > 0; --left) {
    const bool odd = input.ConsumeBool();
    all.push_back(odd ? input.PickValueInArray(kMakers)() : OwnedDescriptor(::dup(good.get())));
  }
  return all;
}

std::vector<int> numbersOf(const std::vector<OwnedDescriptor>& all) {
  std::vector<int> numbers;
  for (const OwnedDescriptor& one : all) numbers.push_back(one.get());
  return numbers;
}

/// Gives a message arguments that name descriptors, or nothing.
Message withDescriptors(FuzzedDataProvider& input, Message message) {
  constexpr std::array kSignatures = {"h", "hh", "ih", "i", "u", "(h)", "v", "s", ""};
  Writer body;
  for (int left = input.ConsumeIntegralInRange(1, 2); left > 0; --left) {
    body.number(4, input.ConsumeIntegralInRange(0, kMostDescriptors + 1));
  }
  return message.with(input.PickValueInArray(kSignatures), body.bytes());
}

/// Text in pieces of any length, and damaged now and then.
std::vector<std::string> inPieces(FuzzedDataProvider& input, std::string text) {
  for (int left = input.ConsumeIntegralInRange(0, 3); left > 0; --left) {
    const auto at = input.ConsumeIntegralInRange<std::size_t>(0, text.size());
    switch (input.ConsumeIntegralInRange(0, 2)) {
      case 0:
        text.insert(at, input.ConsumeRandomLengthString(12));
        break;
      case 1:
        text.erase(at, input.ConsumeIntegralInRange<std::size_t>(1, 8));
        break;
      default:
        text.resize(at);
        break;
    }
  }
  std::vector<std::string> pieces;
  while (!text.empty()) {
    const auto size = std::min<std::size_t>(input.ConsumeIntegralInRange(1, 64), text.size());
    pieces.push_back(text.substr(0, size));
    text.erase(0, size);
  }
  return pieces;
}

void requireFewDescriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  require(std::distance(begin(all), end(all)) < kLeaked);
}

/// A client and a service, each with a peer that is played by hand.
class Openings {
 public:
  void playClient(FuzzedDataProvider& input);
  void playService(FuzzedDataProvider& input);

 private:
  void receive(const std::shared_ptr<Connection>& from, const Message* message);
  void openOddly(FuzzedDataProvider& input, Connection& bus, const Message& open, Peer& handover);
  void openWell(Connection& bus, const Message& open, Peer& handover);

  FakeBroker broker_{[this](const auto& from, const auto* message) { receive(from, message); }};
  ServiceWorld service_{broker_};
  std::mutex mutex_;
  std::vector<uint8_t> script_;  // for the broker's thread, empty for an opening that is good
};

// --- A client asks the service -------------------------------------------------------------------

/// Whatever was wished for and said, the service opens the next line.
void Openings::playClient(FuzzedDataProvider& input) {
  if (!service_.isClaimed()) service_.claim();
  auto [ours, theirs] = socketPair();
  {
    const auto descriptors = anyDescriptors(input, theirs);
    theirs.reset();
    Message open = withDescriptors(input, openCall());
    open.announcedDescriptors = static_cast<uint32_t>(descriptors.size());
    require(service_.ask(open, numbersOf(descriptors)).has_value());
  }
  Peer handover(std::move(ours));
  if (OwnedDescriptor end = handover.takeDescriptor()) {
    Peer line(std::move(end));
    const std::string greeting = "\0AUTH EXTERNAL\r\nDATA\r\nNEGOTIATE_UNIX_FD\r\nBEGIN\r\n"s;
    const std::string call = wire::bytesOf(perixCall());
    for (const std::string& piece : inPieces(input, greeting + call)) line.send(piece);
    line.shutdown(SHUT_WR);
    require(line.hasEnded());
  }
  Peer good = service_.openLine();
  require(service_.answersOn(good));
  // Lines whose ends the service has not seen yet would count against those of the next inputs.
  good.shutdown(SHUT_WR);
  require(good.hasEnded());
}

// --- The client is answered ----------------------------------------------------------------------

void Openings::receive(const std::shared_ptr<Connection>& from, const Message* message) {
  service_.receive(from, message);
  if (message == nullptr || message->type != wire::Type::Call) return;
  if (message->member != "Open") return from->answerWell(*message);
  Peer handover(from->peer().takeDescriptor());
  std::vector<uint8_t> script;
  {
    const std::lock_guard lock(mutex_);
    script.swap(script_);
  }
  FuzzedDataProvider input(script.data(), script.size());
  script.empty() ? openWell(*from, *message, handover)
                 : openOddly(input, *from, *message, handover);
}

void Openings::openWell(Connection& bus, const Message& open, Peer& handover) {
  auto [ours, theirs] = socketPair();
  handover.send("x", std::array{theirs.get()});
  broker_.serveLine(std::move(ours));
  Message answer = withNumber(Message::replyTo(open), ::getpid());
  answer.sender = kServiceOwner;
  bus.send(answer);
}

void Openings::openOddly(FuzzedDataProvider& input, Connection& bus, const Message& open,
                         Peer& handover) {
  auto [ours, theirs] = socketPair();
  {
    Peer line(std::move(ours));
    const std::string welcome = "DATA\r\nOK 00112233445566778899aabbccddeeff\r\n";
    for (const std::string& piece : inPieces(input, welcome)) line.send(piece);
  }
  for (int left = input.ConsumeIntegralInRange(0, 2); left > 0; --left) {
    handover.send(input.ConsumeBool() ? "x" : "xyz", numbersOf(anyDescriptors(input, theirs)));
  }
  const bool fails = input.ConsumeIntegralInRange(0, 7) == 7;
  Message answer = Message::replyTo(open, fails ? wire::Type::Error : wire::Type::Return);
  const int kind = input.ConsumeIntegralInRange(0, 3);
  answer =
      kind == 3 ? withDescriptors(input, answer) : withNumber(answer, kind == 2 ? 1 : ::getpid());
  answer.sender = kServiceOwner;
  bus.send(answer);
}

/// Whatever the answer was, the client has an interface to the service, and when that came to
/// nothing it has a good one next.
void Openings::playService(FuzzedDataProvider& input) {
  static ZQBusSerivceManager* const manager = ZQBusSerivceManager::initSync(kPatienceMs);
  require(manager != nullptr);
  {
    const std::lock_guard lock(mutex_);
    script_ = input.ConsumeRemainingBytes<uint8_t>();
  }
  for (const bool mayFail : {true, false}) {
    const auto service =
        manager->getServiceProxyInterface("perix", ZQBusSecurityFlags::TrustedPeer, 1);
    require(service != nullptr);
    const auto reply =
        service->callWithReplyBlocking(service->makeMethodCallMessage("good"), kPatienceMs);
    const bool isGood = reply->type() == 2 && reply->readInt32(0) == kGoodAnswer;
    require(isGood || (mayFail && reply->failure() == ZQBusFailure::PeerGone));
  }
}

}  // namespace
}  // namespace zq::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  using namespace zq::fuzz;
  static auto* const openings = new Openings;  // its threads go on until the process ends
  FuzzedDataProvider input(data, size);
  input.ConsumeBool() ? openings->playService(input) : openings->playClient(input);
  requireFewDescriptors();
  return 0;
}
