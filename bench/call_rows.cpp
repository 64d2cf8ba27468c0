// What a blocking call costs, and how calls of several threads get along on one connection.
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <stdexcept>
#include <thread>
#include <vector>

#include "bench/bench_service.h"
#include "bench/paired.h"
#include "bench/raw_bus.h"
#include "bench/rows.h"
#include "perix/perix_proxy.h"
#include "zqbus/zqbus.h"

namespace zq::bench {
namespace {

constexpr int kRounds = 101;
constexpr int kBatch = 50;
constexpr int kThreads = 4;
constexpr int kCallsOfAllThreads = 800;
constexpr uint16_t kDevice = 7;

using Packet = std::array<char, 64>;

/// A process at the other end of a socket that sends back every packet.
class EchoProcess {
 public:
  EchoProcess() {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) < 0) {
      throw std::runtime_error("socketpair failed");
    }
    child_ = ::fork();
    if (child_ == 0) {
      ::close(ends[0]);
      echo(ends[1]);
    }
    ::close(ends[1]);
    socket_ = ends[0];
  }
  EchoProcess(const EchoProcess&) = delete;
  EchoProcess& operator=(const EchoProcess&) = delete;
  ~EchoProcess() {
    ::close(socket_);  // which the child sees as the end
    ::waitpid(child_, nullptr, 0);
  }

  void pingPong() const {
    Packet packet{};
    if (::write(socket_, packet.data(), packet.size()) != sizeof packet ||
        ::recv(socket_, packet.data(), packet.size(), MSG_WAITALL) != sizeof packet) {
      throw std::runtime_error("the echo process has gone");
    }
  }

 private:
  [[noreturn]] static void echo(int socket) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    Packet packet;
    while (::recv(socket, packet.data(), packet.size(), MSG_WAITALL) == sizeof packet &&
           ::write(socket, packet.data(), packet.size()) == sizeof packet) {
    }
    ::_exit(0);
  }

  int socket_ = -1;
  pid_t child_ = -1;
};

void connectDevice(PerixProxy& proxy) {
  if (proxy.ConnectDevice(kDesktop, kDevice) != 0) throw std::runtime_error("ConnectDevice failed");
}

void callManyTimes(ZQBusProxyInterface& service, int calls) {
  for (int i = 0; i < calls; ++i) {
    const auto message = service.makeMethodCallMessage("connectDevice");
    message->appendInt32(kDesktopId);
    message->appendUInt16(kDevice);
    if (service.callWithReplyBlocking(message, 3000)->type() != 2) std::abort();
  }
}

/// A side of kCallsOfAllThreads calls, shared out among `count` threads.
Side callsFrom(int count, const std::shared_ptr<ZQBusProxyInterface>& service) {
  const Side all = batchOf(1, [count, service] {
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
      threads.emplace_back(callManyTimes, std::ref(*service), kCallsOfAllThreads / count);
    }
    for (std::thread& thread : threads) thread.join();
  });
  return [all] { return all() / kCallsOfAllThreads; };
}

void addThreadRow(Report& report) {
  const auto service = ZQBusSerivceManager::initSync(-1)->getServiceProxyInterface(
      "perix", ZQBusSecurityFlags::None, 1);
  if (service == nullptr) throw std::runtime_error("no service");
  const Rounds rounds(21, {callsFrom(kThreads, service), callsFrom(1, service)});
  const bool free = report.placement() == Placement::Free;
  // Of rates: how many times as many calls a second.
  report.add({"a bus call, 4 threads on one connection", rounds.median(0), "the same, one thread",
              rounds.median(1), rounds.ratio(1, 0),
              free ? std::optional(Bar{Bar::Kind::AtLeast, 2}) : std::nullopt});
}

}  // namespace

void addCallRows(Report& report) {
  PerixProxy& proxy = *PerixProxy::getInstance();
  const RawBus raw = openRawBus();
  const EchoProcess echo;
  const Rounds rounds(kRounds, {batchOf(kBatch, [&] { connectDevice(proxy); }),
                                batchOf(kBatch, [&] { connectDeviceRaw(raw.get()); }),
                                batchOf(kBatch, [&] { echo.pingPong(); })});
  report.add({"ConnectDevice, id cached, log line", rounds.median(0),
              "raw sd_bus_call, same daemon", rounds.median(1), rounds.ratio(0, 1),
              Bar{Bar::Kind::AtMost, 1.15}});
  report.add({"ConnectDevice, id cached, log line", rounds.median(0),
              "unix-socket ping-pong of 64 bytes", rounds.median(2), rounds.ratio(0, 2),
              std::nullopt});
  addThreadRow(report);
}

}  // namespace zq::bench
