#include "service/model/world.h"

#include "service/model/test_page.h"
#include "tests/service/test_world.h"

namespace zq::devservice {
namespace {

TEST_F(OfficeWorld, ConnectsDeviceAndSaysWhere) {
  ASSERT_EQ(world.devices.connect(kOffice, kCamera), Result::Done);
  ASSERT_EQ(events.events.size(), 1U);
  EXPECT_EQ(events.events[0].kind, EventKind::DeviceState);
  EXPECT_EQ(events.events[0].desktop, kOffice);
  const auto record = recordOf<CommonDevice>(events.events[0].payload);
  EXPECT_EQ(record.devNumber, kCamera);
  EXPECT_EQ(record.status, kDeviceConnected);
  EXPECT_EQ(record.vmId, kOffice);
  EXPECT_STREQ(record.name, "Desk camera");
  EXPECT_EQ(record.vmIdText[0], '\0');
  events.events.clear();
  ASSERT_EQ(world.devices.unplug(kCamera), Result::Done);
  EXPECT_EQ(kinds(), (std::vector{4, 7}));
}

TEST_F(OfficeWorld, RefusesWithoutEvent) {
  ASSERT_EQ(world.connectDesktop(kLab, 0, 0, 0), Result::Done);
  ASSERT_EQ(world.devices.connect(kLab, kDisk), Result::Done);
  ASSERT_EQ(world.desktops.disconnect(kLab), Result::Done);
  events.events.clear();
  EXPECT_EQ(world.devices.connect(kNowhere, kCamera), Result::UnknownDesktop);
  EXPECT_EQ(world.devices.connect(kOffice, 99), Result::UnknownDevice);
  EXPECT_EQ(world.devices.connect(kLab, kCamera), Result::DesktopNotConnected);
  EXPECT_EQ(world.devices.connect(kOffice, kDisk), Result::ConnectedElsewhere);
  EXPECT_EQ(world.devices.connect(kOffice, kForbidden), Result::Forbidden);
  EXPECT_EQ(world.devices.disconnect(kOffice, kCamera), Result::NotConnectedHere);
  EXPECT_EQ(world.activities.diagnose(kNowhere, 0), Result::UnknownDesktop);
  const uint64_t known = device(kCamera).sourceId;
  EXPECT_EQ(world.activities.configureIgnore({known}), Result::NotWaiting);
  EXPECT_EQ(world.activities.configureIgnore({known, 2}), Result::WrongDeviceType);
  EXPECT_EQ(world.activities.configureIgnore({12345}), Result::UnknownDevice);
  EXPECT_EQ(world.activities.configureConnect(kLab, {known}), Result::DesktopNotConnected);
  EXPECT_TRUE(events.events.empty());
}

TEST_F(OfficeWorld, FreesAllOfDisconnectedDesktop) {
  ASSERT_EQ(world.devices.connect(kOffice, kCamera), Result::Done);
  ASSERT_EQ(world.printers.connect(kOffice, 1), Result::Done);
  ASSERT_EQ(world.desktops.createPipes({{kOffice, {}}}), Result::Done);
  events.events.clear();
  ASSERT_EQ(world.disconnectDesktop(kOffice), Result::Done);
  EXPECT_EQ(kinds(), (std::vector{4, 1}));
  EXPECT_EQ(device(kCamera).status, DeviceStatus::Idle);
  EXPECT_TRUE(world.printers.of(kOffice).empty());
  EXPECT_TRUE(world.desktops.find(kOffice)->pipes.empty());
}

TEST_F(OfficeWorld, ConnectsDevicesOfTypeToFocusedDesktop) {
  ASSERT_EQ(world.connectDesktop(kLab, 0, 0, 0), Result::Done);
  for (const uint32_t desktop : {kOffice, kLab}) {
    ASSERT_EQ(world.desktops.focus(desktop, true, 0), Result::Done);
  }
  ASSERT_EQ(world.devices.setAutoConnect(3, true), Result::Done);
  EXPECT_EQ(device(kCamera).desktop, kLab);
  Device camera{.type = DeviceType::Camera, .name = "another"};
  events.events.clear();
  const uint16_t number = plug(camera);
  EXPECT_EQ(device(number).desktop, kLab);
  EXPECT_EQ(kinds(), (std::vector{6, 4}));
  ASSERT_EQ(world.disconnectDesktop(kLab), Result::Done);
  ASSERT_EQ(world.desktops.focus(kLab, true, 0), Result::Done);
  ASSERT_EQ(world.devices.setAutoConnect(3, true), Result::Done);
  EXPECT_EQ(device(number).desktop, kOffice);
  events.events.clear();
  camera.name = "forbidden";
  camera.policy = DevicePolicy::Forbid;
  camera.mounted = true;
  plug(camera);
  EXPECT_EQ(kinds(), (std::vector{6, 5}));
  EXPECT_EQ(events.broadcasts.size(), 1U);
  EXPECT_EQ(world.devices.setAutoConnect(77, true), Result::InvalidArgument);
}

TEST_F(OfficeWorld, KeepsPolicyOfVendorAndProduct) {
  EXPECT_EQ(world.devices.setPolicy(kCamera, 2, "Another name"), Result::UnknownDevice);
  EXPECT_EQ(world.devices.setPolicy(kCamera, 3, ""), Result::InvalidArgument);
  ASSERT_EQ(world.devices.setPolicy(kCamera, 2, "Desk camera"), Result::Done);
  const uint16_t number = plug(Device{.id = device(kCamera).id, .name = "twin"});
  EXPECT_EQ(world.devices.connect(kOffice, number), Result::Forbidden);
  events.events.clear();
  ASSERT_EQ(world.devices.setPolicy(kCamera, 0, ""), Result::Done);
  EXPECT_EQ(kinds(), (std::vector{4, 4}));
  EXPECT_EQ(world.devices.connect(kOffice, number), Result::Done);
}

TEST_F(OfficeWorld, ConfiguresNewDeviceAndTellsOutcome) {
  for (const bool unplugged : {false, true}) {
    for (const bool connects : {true, false}) {
      const uint16_t number = plug("new");
      EXPECT_EQ(kinds(), (std::vector{6, 10}));
      const NewDeviceDecision decision{device(number).sourceId, 0, false, true};
      ASSERT_EQ(connects ? world.activities.configureConnect(kOffice, decision)
                         : world.activities.configureIgnore(decision),
                Result::Done);
      EXPECT_TRUE(events.events.empty());
      if (unplugged) {
        ASSERT_EQ(world.devices.unplug(number), Result::Done);
      }
      timer.pass(kLong);
      ASSERT_EQ(events.events.size(), 2U);
      const auto outcome = recordOf<_ConfigNewDeviceResult>(events.events[1].payload);
      EXPECT_EQ(outcome.isSuccess, unplugged ? 0 : 1);
      EXPECT_EQ(events.events[1].desktop, connects && !unplugged ? kOffice : 0U);
      EXPECT_STREQ(outcome.code, unplugged ? "unknown device" : "done");
      EXPECT_EQ(kinds(), unplugged  ? (std::vector{7, 13})
                         : connects ? (std::vector{4, 11})
                                    : (std::vector{4, 12}));
    }
  }
}

TEST_F(OfficeWorld, KeepsHabitsOfNewDevices) {
  const uint64_t failing = device(plug("failing")).sourceId;
  ASSERT_EQ(world.activities.configureConnect(kOffice, {failing, 0, true, true}), Result::Done);
  ASSERT_EQ(world.disconnectDesktop(kOffice), Result::Done);
  timer.pass(kLong);
  EXPECT_EQ(kinds(), (std::vector{6, 10, 13}));
  EXPECT_FALSE(world.devices.autoConnects(DeviceType::Usb));

  ASSERT_EQ(world.connectDesktop(kOffice, 0, 0, 0), Result::Done);
  const uint64_t sourceId = device(plug("first")).sourceId;
  ASSERT_EQ(world.activities.configureIgnore({sourceId, 0, false, false}), Result::Done);
  timer.pass(kLong);
  events.events.clear();
  const uint16_t second = plug("second");
  EXPECT_EQ(kinds(), (std::vector{6})) << "asked again";
  EXPECT_EQ(device(second).status, DeviceStatus::Idle);
  ASSERT_EQ(world.devices.setAutoConnect(1, true), Result::Done);
  EXPECT_EQ(device(second).desktop, kOffice);
  EXPECT_EQ(world.devices.findBySource(sourceId)->status, DeviceStatus::Ignored);
}

TEST_F(OfficeWorld, MountsUnmountsAndEjectsDisk) {
  const uint64_t disk = device(kDisk).sourceId;
  EXPECT_EQ(world.activities.diskCommand(0, device(kCamera).sourceId, 1), Result::NotADisk);
  EXPECT_EQ(world.activities.diskCommand(0, disk, 2), Result::NotMounted);
  EXPECT_EQ(world.activities.diskCommand(0, disk, 9), Result::InvalidArgument);
  EXPECT_EQ(world.activities.diskCommand(kNowhere, disk, 1), Result::UnknownDesktop);
  EXPECT_TRUE(events.broadcasts.empty());
  events.events.clear();
  EXPECT_EQ(world.activities.diskCommand(0, disk, 1), Result::Done);
  ASSERT_EQ(events.broadcasts.size(), 1U);
  EXPECT_EQ(events.broadcasts[0].kind, EventKind::DiskMounted);
  EXPECT_EQ(world.activities.diskCommand(0, disk, 3), Result::Done);
  EXPECT_EQ(kinds(), (std::vector{14, 65, 7, 14}));
  EXPECT_EQ(world.devices.numberOf(disk), 0);
}

TEST_F(OfficeWorld, AddsAndRemovesNetworkDevice) {
  EXPECT_EQ(world.devices.addNetwork(3, "gate@10.0.0.9"), Result::Done);
  EXPECT_EQ(world.devices.addNetwork(3, "gate@10.0.0.10"), Result::AlreadyExists);
  for (const char* wrong : {"", "@", "gate@", "@10.0.0.9"}) {
    EXPECT_EQ(world.devices.addNetwork(3, wrong), Result::InvalidArgument) << wrong;
  }
  EXPECT_EQ(world.devices.removeNetwork("gate", "10.0.0.8"), Result::UnknownDevice);
  EXPECT_EQ(world.devices.removeNetwork("Desk camera", ""), Result::UnknownDevice);
  EXPECT_EQ(world.devices.removeNetwork("gate", "10.0.0.9"), Result::Done);
  EXPECT_EQ(kinds(), (std::vector{6, 7}));
}

TEST_F(OfficeWorld, TakesLowestFreeNumberWhenHighestIsTaken) {
  ASSERT_EQ(world.devices.unplug(kDisk), Result::Done);
  Device last{.number = 65535, .name = "last"};
  last.sourceId = derivedSourceId(kDisk);
  plug(last);
  EXPECT_EQ(plug("next"), kDisk);
  EXPECT_EQ(world.devices.numberOf(last.sourceId), last.number) << "the next has another source id";
  last.number = kCamera;
  EXPECT_EQ(world.devices.plug(last, last.number), Result::AlreadyExists);
}

TEST_F(OfficeWorld, PrintsOneJobAfterAnother) {
  std::vector<Result> results;
  const auto note = [&results](Result result) { results.push_back(result); };
  world.printerBackend->printTestPage("Desk printer", note);
  world.printerBackend->printTestPage("Desk printer", note);
  EXPECT_EQ(results, (std::vector{Result::Busy}));
  timer.pass(kLong);
  EXPECT_EQ(results, (std::vector{Result::Busy, Result::Done}));
  ASSERT_EQ(events.events.size(), 2U);
  const auto printing = recordOf<PrinterDevice>(events.events[0].payload);
  EXPECT_EQ(printing.status, static_cast<int>(PrinterStatus::Printing));
  EXPECT_STREQ(printing.name, "Desk printer");
}

TEST_F(OfficeWorld, KeepsStatusOfPrinterWhenItsJobEnds) {
  const Printer& printer = world.printers.all().at(1);
  const std::vector<Printer> asSeen = {printer, world.printers.all().at(2)};
  ASSERT_EQ(world.printers.connect(kOffice, 1), Result::Done);
  ASSERT_EQ(world.activities.print(1, "letter"), Result::Done);
  ASSERT_EQ(world.printers.command(1, 1), Result::Done);
  timer.pass(kLong);
  EXPECT_EQ(printer.status, PrinterStatus::Paused);
  EXPECT_EQ(printer.document, "");
  ASSERT_EQ(world.printers.command(1, 2), Result::Done);
  events.events.clear();
  world.printers.setLocal(asSeen);
  EXPECT_EQ(printer.status, PrinterStatus::Connected);
  EXPECT_TRUE(events.events.empty());
}

TEST_F(OfficeWorld, RenamesNetworkPrinterToFreeName) {
  constexpr auto kNetwork = PrinterOrigin::Network;
  ASSERT_EQ(world.printers.add({.origin = kNetwork, .name = "Attic"}), Result::Done);
  EXPECT_EQ(world.printers.rename(kNetwork, "Attic", "Corridor"), Result::AlreadyExists);
  EXPECT_EQ(world.printers.rename(kNetwork, "Attic", ""), Result::InvalidArgument);
  EXPECT_EQ(world.printers.rename(kNetwork, "Attic", "Desk printer"), Result::Done);
  EXPECT_EQ(world.printers.remove(kNetwork, "Attic"), Result::UnknownPrinter);
  const Printer* renamed = world.printers.find(kNetwork, "Desk printer");
  ASSERT_EQ(world.printers.connect(kOffice, renamed->number), Result::Done);
  ASSERT_EQ(world.printers.remove(kNetwork, "Desk printer"), Result::Done);
  EXPECT_EQ(events.events.back().desktop, 0U);
}

TEST_F(OfficeWorld, SearchesForSomeTimeUnlessStopped) {
  std::vector<Result> results;
  std::size_t found = 0;
  const auto note = [&](Result result, const std::vector<SharedPrinter>& printers) {
    results.push_back(result);
    found += printers.size();
  };
  EXPECT_EQ(world.search.stop(), Result::NothingToStop);
  world.search.start("192.168.7.20:9100", note);
  timer.pass(std::chrono::milliseconds(1499));
  EXPECT_TRUE(results.empty());
  timer.pass(std::chrono::milliseconds(1));
  EXPECT_EQ(found, 2U);
  world.search.start("192.168.7.20", note);
  EXPECT_EQ(world.search.stop(), Result::Done);
  world.search.start("192.168.7.66", note);
  timer.pass(kLong);
  EXPECT_EQ(results, (std::vector{Result::Done, Result::Stopped, Result::HostNotFound}));
}

TEST_F(OfficeWorld, ForgetsAllWorkWhenLoadedAnew) {
  Result stopped = Result::Done;
  world.search.start("192.168.7.20", [&](Result result, const auto&) { stopped = result; });
  ASSERT_EQ(world.activities.diagnose(kOffice, 0), Result::Done);
  world.load({});
  EXPECT_EQ(stopped, Result::Stopped);
  timer.pass(kLong);
  EXPECT_TRUE(events.events.empty());
  EXPECT_TRUE(world.devices.all().empty());
}

TEST(TestPage, NamesPrinterAndPlacesOfObjects) {
  const std::string page = testPage("La(b");
  EXPECT_NE(page.find("(Printer: La\\(b) Tj"), std::string::npos) << page;
  const std::string head = "xref\n0 6\n";
  const auto table = page.find(head);
  ASSERT_NE(table, std::string::npos);
  for (int object = 1; object <= 5; ++object) {
    const auto entry = table + head.size() + 20U * object;
    const auto offset = std::stoul(page.substr(entry, 10));
    EXPECT_EQ(page.substr(offset, 7), std::to_string(object) + " 0 obj");
  }
  EXPECT_NE(page.find("startxref\n" + std::to_string(table) + "\n%%EOF"), std::string::npos);
}

}  // namespace
}  // namespace zq::devservice
