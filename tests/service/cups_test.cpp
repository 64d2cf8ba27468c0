// The service with a CUPS server behind it: real queues, and pages that arrive on a printer.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <functional>
#include <future>
#include <nlohmann/json.hpp>
#include <thread>

#include "perix/perix_proxy.h"
#include "perix/service_values.h"
#include "testing/control_client.h"
#include "tests/service/cups_world.h"
#include "tests/support/bus_world.h"

namespace zq {
namespace {

class CupsServer : public testing::Test {
 protected:
  void SetUp() override {
    if (const std::string reason = CupsWorld::missing(); !reason.empty()) GTEST_SKIP() << reason;
    cups = std::make_unique<CupsWorld>(testBus().address());
    service = startService({"--cups", cups->socket()});
    proxy = PerixProxy::getInstance();
    // After an earlier case's service, the library looks for the next one every two seconds.
    ASSERT_TRUE(comesTrue([this] { return !proxy->SearchAllPrinter().empty(); }));
  }

  static bool comesTrue(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!condition()) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
  }

  void addPrinter() { ASSERT_EQ(proxy->AutoAddPrinter(kName, cups->printerUri(), ""), 0); }

  /// The status of each local printer, by name.
  std::map<std::string, std::string> localPrinters() {
    std::map<std::string, std::string> found;
    const auto summary = nlohmann::json::parse(proxy->SearchAllPrinter());
    for (const auto& entry : summary["printers"]) {
      if (entry["origin"] == "local") found[entry["name"]] = entry["status"];
    }
    return found;
  }

  static constexpr char kName[] = "Lab";

  std::unique_ptr<CupsWorld> cups;
  std::unique_ptr<ChildProcess> service;
  PerixProxy* proxy = nullptr;
};

TEST_F(CupsServer, PrintsTestPageOnAddedPrinter) {
  EXPECT_TRUE(localPrinters().empty());  // the scenario's are not those of the machine
  ASSERT_NO_FATAL_FAILURE(addPrinter());
  EXPECT_EQ(localPrinters().count(kName), 1U);
  EXPECT_EQ(proxy->PrintTestPage(kName), 0);
  const std::string page = cups->nextDocument();
  EXPECT_EQ(page.substr(0, 5), "%PDF-");
  EXPECT_NE(page.find("/BaseFont /Helvetica"), std::string::npos) << page;  // it is ours
  EXPECT_EQ(proxy->DeletePrinter(kName), 0);
  EXPECT_TRUE(localPrinters().empty());
}

TEST_F(CupsServer, NamesAndChangesDrivers) {
  const auto drivers = nlohmann::json::parse(proxy->GetPrinterDriverlList("EVERYWHERE"))["drivers"];
  ASSERT_FALSE(drivers.empty());
  EXPECT_EQ(drivers[0]["name"], "everywhere");
  ASSERT_NO_FATAL_FAILURE(addPrinter());
  EXPECT_EQ(proxy->ChangePrinterDriver(kName, "raw"), 0);
  const auto state = nlohmann::json::parse(askControl("state"))["printers"];
  EXPECT_TRUE(std::any_of(state.begin(), state.end(), [](const auto& entry) {
    return entry["name"] == kName && entry["driver"] == "Local Raw Printer";
  })) << state;
}

TEST_F(CupsServer, SaysWhyItRefuses) {
  ASSERT_NO_FATAL_FAILURE(addPrinter());
  const auto code = [](ServiceResult result) { return static_cast<int>(result); };
  const int invalid = code(ServiceResult::InvalidArgument);
  const int unknownDriver = code(ServiceResult::UnknownDriver);
  const int unknownPrinter = code(ServiceResult::UnknownPrinter);
  const std::string uri = cups->printerUri();
  EXPECT_EQ(proxy->AutoAddPrinter(kName, uri, ""), code(ServiceResult::AlreadyExists));
  EXPECT_EQ(proxy->AddLocalPrinter("a/b", uri, "raw"), invalid);
  EXPECT_EQ(proxy->AddLocalPrinter("New", "nix:/x", "raw"), invalid);
  EXPECT_EQ(proxy->AddLocalPrinter("New", uri, "nix.ppd"), unknownDriver);
  EXPECT_EQ(proxy->AutoAddPrinter("New", "socket://localhost", ""), unknownDriver);
  EXPECT_EQ(proxy->AddLocalPrinter("New", "ipp://localhost:1/ipp/print", "everywhere"),
            code(ServiceResult::HostNotFound));
  EXPECT_EQ(proxy->ChangePrinterDriver(kName, "nix.ppd"), unknownDriver);
  EXPECT_EQ(proxy->ChangePrinterDriver("New", "raw"), unknownPrinter);
  EXPECT_EQ(proxy->PrintTestPage("New"), unknownPrinter);
  EXPECT_EQ(proxy->DeletePrinter("New"), unknownPrinter);
  EXPECT_EQ(localPrinters().size(), 1U);
  cups->daemon().kill();
  EXPECT_EQ(proxy->PrintTestPage(kName), code(ServiceResult::NoPrintServer));
}

TEST_F(CupsServer, PrintsPagesOfPausedPrinterWhenResumed) {
  ASSERT_NO_FATAL_FAILURE(addPrinter());
  constexpr unsigned short kNumber = 1;  // the first that is free
  constexpr unsigned short kPause = 1, kResume = 2;
  ASSERT_EQ(proxy->ConfigPrinterCommand("office-1", kNumber, kPause), 0);
  EXPECT_EQ(localPrinters()[kName], "paused");
  EXPECT_EQ(proxy->PrintTestPage(kName), 0);
  ASSERT_EQ(proxy->ConfigPrinterCommand("office-1", kNumber, kResume), 0);
  EXPECT_FALSE(cups->nextDocument().empty());
}

TEST_F(CupsServer, HangsWithoutHoldingUpService) {
  ASSERT_NO_FATAL_FAILURE(addPrinter());
  cups->daemon().pause();
  auto printed = std::async(std::launch::async, [this] { return proxy->PrintTestPage(kName); });
  EXPECT_TRUE(
      comesTrue([] { return askControl("listCalls").find("printTestPage") != std::string::npos; }));
  EXPECT_NE(askControl("state").find(kName), std::string::npos);
  EXPECT_EQ(printed.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  cups->daemon().signal(SIGCONT);
  EXPECT_EQ(printed.get(), 0);
}

}  // namespace
}  // namespace zq
