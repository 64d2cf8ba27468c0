// One client of many: scale_client FIGURES ROW. It does what its standard input says:
//
//   connect         connects, and hears the answers of commands      -> connected FAILURE
//   calls SECONDS   makes calls back to back                         -> calls NUMBER FAILED
//   command NAME    has the service send an event to every client    -> sent NANOSECONDS
//   list DESKTOP    gets a list of devices and keeps it              -> list RECORDS NANOSECONDS
//   free            frees that list                                  -> freed
//
// The first number of its row of FIGURES counts the events, and those behind it are the times at
// which they came.
#include <chrono>
#include <cstdio>
#include <exception>
#include <list>
#include <map>
#include <sstream>
#include <string>

#include "bench/load/figures.h"
#include "bench/load/orders.h"
#include "perix/perix_proxy.h"

namespace zq::load {
namespace {

class Client {
 public:
  explicit Client(const Figures& figures) : figures_(figures) {}

  void connect(std::istream&) {
    PerixProxy* const proxy = PerixProxy::getInstance();
    const PerixFailureReport report = PerixLastFailure();
    proxy->RegisterCmdCallback(&onAnswer, this);
    tell("connected " + std::to_string(static_cast<int>(report.failure)));
  }

  void calls(std::istream& words) {
    int seconds = 0;
    words >> seconds;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    long made = 0;
    long failed = 0;
    for (; std::chrono::steady_clock::now() < end; ++made) {
      PerixProxy::getInstance()->GetAutoConnect(1);
      if (PerixLastFailure().failure != PerixFailure::None) ++failed;
    }
    tell("calls " + std::to_string(made) + ' ' + std::to_string(failed));
  }

  void command(std::istream& words) {
    std::string name;
    words >> name;
    const int64_t begin = nanosecondsNow();
    const int result = PerixProxy::getInstance()->DoPerixCmd(name);
    tell(result == 0 ? "sent " + std::to_string(begin) : "failed");
  }

  void list(std::istream& words) {
    std::string desktop;
    words >> desktop;
    const int64_t begin = nanosecondsNow();
    list_ = PerixProxy::getInstance()->GetDeviceList(desktop);
    tell("list " + std::to_string(list_.size()) + ' ' + std::to_string(nanosecondsNow() - begin));
  }

  void free(std::istream&) {
    PerixProxy::getInstance()->FreeDeviceList(list_);
    list_.clear();
    tell("freed");
  }

 private:
  static int onAnswer(uint16_t, CmdResponse*, void* self) {
    const Figures& figures = static_cast<Client*>(self)->figures_;
    const int64_t event = figures[0] + 1;
    if (event < static_cast<int64_t>(Figures::kColumns)) {
      figures[static_cast<std::size_t>(event)] = nanosecondsNow();
    }
    figures[0] = event;
    return 0;
  }

  const Figures& figures_;
  std::list<CommonDevice*> list_;
};

int run(const std::string& file, const std::string& row) {
  using Order = void (Client::*)(std::istream&);
  static const std::map<std::string, Order> kOrders = {{"connect", &Client::connect},
                                                       {"calls", &Client::calls},
                                                       {"command", &Client::command},
                                                       {"list", &Client::list},
                                                       {"free", &Client::free}};
  takeStandardOutput();
  const Figures figures(file, std::stoul(row));
  Client client(figures);
  for (std::string line; nextOrder(line);) {
    std::istringstream words(line);
    std::string order;
    words >> order;
    (client.*kOrders.at(order))(words);
  }
  return 0;
}

}  // namespace
}  // namespace zq::load

int main(int count, char** arguments) {
  if (count != 3) {
    std::fprintf(stderr, "usage: scale_client FIGURES ROW\n");
    return 2;
  }
  try {
    return zq::load::run(arguments[1], arguments[2]);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "scale_client: %s\n", error.what());
    return 1;
  }
}
