// The service with a CUPS server behind it: real queues, and pages that arrive on a printer.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <functional>
#include <future>
#include <nlohmann/json.hpp>
#include <thread>

#include "perix/perix_proxy.h"
#include "perix/service_values.h"
#include "service/model/test_page.h"
#include "testing/control_client.h"
#include "tests/service/cups_world.h"
#include "tests/support/bus_world.h"

namespace zq {
namespace {

using Result = ServiceResult;

class ACupsServer : public testing::Test {
 protected:
  void SetUp() override {
    if (const std::string reason = whyNoCups(); !reason.empty()) GTEST_SKIP() << reason;
    cups = std::make_unique<PrivateCups>();
    printer = std::make_unique<IppPrinter>(testBus().address());
    try {
      service = startDevelopmentService(testBus().address(), PERIX_DEVSERVICE,
                                        {"--cups", cups->socket()});
    } catch (const std::runtime_error& error) {
      const bool absent = std::string(error.what()).find("built without CUPS") != std::string::npos;
      if (!absent) throw;
      GTEST_SKIP() << error.what();
    }
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

  void addPrinter() { ASSERT_EQ(proxy->AutoAddPrinter(kName, printer->uri(), ""), 0); }

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

  std::unique_ptr<PrivateCups> cups;
  std::unique_ptr<IppPrinter> printer;
  std::unique_ptr<ChildProcess> service;
  PerixProxy* proxy = nullptr;
};

TEST(ATestPage, NamesThePrinterAndItsTableOfObjectsIsRight) {
  const std::string page = devservice::testPage("La(b");
  EXPECT_NE(page.find("(Printer: La\\(b) Tj"), std::string::npos) << page;
  const auto table = page.find("xref\n0 6\n");
  ASSERT_NE(table, std::string::npos);
  for (int object = 1; object <= 5; ++object) {
    const auto entry = table + std::strlen("xref\n0 6\n") + 20U * object;
    const auto offset = std::stoul(page.substr(entry, 10));
    EXPECT_EQ(page.substr(offset, 7), std::to_string(object) + " 0 obj");
  }
  EXPECT_NE(page.find("startxref\n" + std::to_string(table) + "\n%%EOF"), std::string::npos);
}

TEST_F(ACupsServer, PrintsATestPageOnAPrinterThatAClientAdded) {
  EXPECT_TRUE(localPrinters().empty());  // the scenario's are not those of the machine
  ASSERT_NO_FATAL_FAILURE(addPrinter());
  EXPECT_EQ(localPrinters().count(kName), 1U);
  EXPECT_EQ(proxy->PrintTestPage(kName), 0);
  const std::string page = printer->nextDocument();
  EXPECT_EQ(page.substr(0, 5), "%PDF-");
  EXPECT_NE(page.find("/BaseFont /Helvetica"), std::string::npos) << page;  // it is ours
  EXPECT_EQ(proxy->DeletePrinter(kName), 0);
  EXPECT_TRUE(localPrinters().empty());
}

TEST_F(ACupsServer, NamesItsDriversAndChangesThem) {
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

TEST_F(ACupsServer, SaysWhyItDoesNotDoIt) {
  ASSERT_NO_FATAL_FAILURE(addPrinter());
  const std::string uri = printer->uri();
  const std::string nobody = "ipp://localhost:" + std::to_string(freePort()) + "/ipp/print";
  const struct {
    const char* what;
    std::function<int()> ask;
    Result expected;
  } cases[] = {
      {"a name that is taken", [&] { return proxy->AutoAddPrinter(kName, uri, ""); },
       Result::AlreadyExists},
      {"a name that none can be", [&] { return proxy->AddLocalPrinter("a/b", uri, "raw"); },
       Result::InvalidArgument},
      {"an address of no kind", [&] { return proxy->AddLocalPrinter("New", "nix:/x", "raw"); },
       Result::InvalidArgument},
      {"an unknown driver", [&] { return proxy->AddLocalPrinter("New", uri, "nix.ppd"); },
       Result::UnknownDriver},
      {"no driver for it", [&] { return proxy->AutoAddPrinter("New", "socket://localhost", ""); },
       Result::UnknownDriver},
      {"nobody there", [&] { return proxy->AddLocalPrinter("New", nobody, "everywhere"); },
       Result::HostNotFound},
      {"another driver", [&] { return proxy->ChangePrinterDriver(kName, "nix.ppd"); },
       Result::UnknownDriver},
      {"a driver for none", [&] { return proxy->ChangePrinterDriver("New", "raw"); },
       Result::UnknownPrinter},
      {"a page for none", [&] { return proxy->PrintTestPage("New"); }, Result::UnknownPrinter},
      {"none to delete", [&] { return proxy->DeletePrinter("New"); }, Result::UnknownPrinter},
  };
  for (const auto& refused : cases) {
    EXPECT_EQ(refused.ask(), static_cast<int>(refused.expected)) << refused.what;
  }
  EXPECT_EQ(localPrinters().size(), 1U);
  cups->process().kill();
  EXPECT_EQ(proxy->PrintTestPage(kName), static_cast<int>(Result::NoPrintServer));
}

TEST_F(ACupsServer, PausesAPrinterAndPrintsWhatWaitedWhenItIsResumed) {
  ASSERT_NO_FATAL_FAILURE(addPrinter());
  constexpr unsigned short kNumber = 1;  // the first that is free
  constexpr unsigned short kPause = 1;
  constexpr unsigned short kResume = 2;
  ASSERT_EQ(proxy->ConfigPrinterCommand("office-1", kNumber, kPause), 0);
  EXPECT_EQ(localPrinters()[kName], "paused");
  EXPECT_EQ(proxy->PrintTestPage(kName), 0);
  ASSERT_EQ(proxy->ConfigPrinterCommand("office-1", kNumber, kResume), 0);
  EXPECT_FALSE(printer->nextDocument().empty());
}

TEST_F(ACupsServer, ThatHangsDoesNotHoldUpTheService) {
  ASSERT_NO_FATAL_FAILURE(addPrinter());
  cups->process().pause();
  auto printed = std::async(std::launch::async, [this] { return proxy->PrintTestPage(kName); });
  EXPECT_TRUE(
      comesTrue([] { return askControl("listCalls").find("printTestPage") != std::string::npos; }));
  EXPECT_NE(askControl("state").find(kName), std::string::npos);
  EXPECT_EQ(printed.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  cups->process().signal(SIGCONT);
  EXPECT_EQ(printed.get(), 0);
}

}  // namespace
}  // namespace zq
