// The window, driven with the mouse on a display of its own, against the real service.
#include <gtest/gtest.h>

#include <QApplication>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLabel>
#include <QPushButton>
#include <QTabletEvent>
#include <QTest>
#include <QTreeWidget>
#include <cstdlib>

#include "examples/console/appearance.h"
#include "examples/console/console_window.h"
#include "examples/console/item_panel.h"
#include "examples/console/pen_canvas.h"
#include "tools/embedded/private_bus.h"

// LeakSanitizer asks for this by its name: the platform without a display leaves its screen behind.
extern "C" [[gnu::visibility("default")]] const char* __lsan_default_suppressions() {
  return "leak:libqoffscreen";
}

namespace zq::console {
namespace {

constexpr int kPatienceMs = 30'000;

// An X server of the test's own, or nothing where the window is drawn without one.
std::unique_ptr<ChildProcess> startDisplay() {
  ::setenv("QT_QPA_PLATFORM", PLATFORM, 1);
  if (std::string_view(PLATFORM) != "xcb") return nullptr;
  ChildProcess::Options options;
  options.arguments = {"Xvfb",    "-displayfd", std::to_string(ChildProcess::kReadinessDescriptor),
                       "-screen", "0",          "1400x1000x24"};
  options.error = ChildProcess::Stream::Capture;
  options.readiness = true;
  auto display = std::make_unique<ChildProcess>(options);
  const auto number = display->readinessLine(std::chrono::milliseconds(kPatienceMs));
  if (!number) throw std::runtime_error("Xvfb: " + display->errorText());
  ::setenv("DISPLAY", (":" + *number).c_str(), 1);
  return display;
}

// What the process has one of, from the first test to the last: the display, the bus that the
// library is connected to, and Qt.
class World : public testing::Environment {
 public:
  void SetUp() override {
    display_ = startDisplay();
    bus = std::make_unique<PrivateBus>();
    ::setenv("ZQBUS_ADDRESS", bus->address().c_str(), 1);
    application_ = std::make_unique<QApplication>(count_, arguments_);
    applyAppearance(*application_);
  }
  void TearDown() override {
    application_.reset();
    bus.reset();
    display_.reset();
  }

  std::unique_ptr<PrivateBus> bus;

 private:
  std::unique_ptr<ChildProcess> display_;
  char name_[8] = "console";
  char* arguments_[2] = {name_, nullptr};
  int count_ = 1;
  std::unique_ptr<QApplication> application_;
};

auto* const world = static_cast<World*>(testing::AddGlobalTestEnvironment(new World));

template <typename Condition>
bool comes(Condition condition) {
  return QTest::qWaitFor(condition, kPatienceMs);
}

class AConsole : public testing::Test {
 protected:
  void open() {
    window = std::make_unique<ConsoleWindow>();
    window->show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(window.get()));
  }
  void startService() {
    service =
        startDevelopmentService(world->bus->address(), PERIX_DEVSERVICE, {"--scenario", SCENARIO});
  }

  ItemPanel& panel(const char* name) const { return *window->findChild<ItemPanel*>(name); }
  QPushButton& button(const char* name) const { return *panel(name).findChild<QPushButton*>(); }
  QTreeWidget& list(const char* name) const { return *panel(name).findChild<QTreeWidget*>(); }
  QTreeWidgetItem* row(const char* name, const char* item) const {
    return list(name).findItems(item, Qt::MatchExactly).value(0);
  }
  /// Waits until the item is there in that state.
  bool shows(const char* name, const char* item, const char* state) const {
    return comes([=, this] {
      const QTreeWidgetItem* const found = row(name, item);
      return found != nullptr && found->text(1) == state;
    });
  }
  void select(const char* name, const char* item) const {
    list(name).scrollToItem(row(name, item));
    QTest::mouseClick(list(name).viewport(), Qt::LeftButton, {},
                      list(name).visualItemRect(row(name, item)).center());
  }
  void switchItem(const char* name, const char* item) const {
    select(name, item);
    QTest::mouseClick(&button(name), Qt::LeftButton);
  }
  bool bannerBecomes(const char* text) const {
    return comes([=, this] { return window->findChild<QLabel*>("bannerTitle")->text() == text; });
  }
  bool logHas(const char* text) const {
    const auto* const log = window->findChild<QTreeWidget*>("log");
    return !log->findItems(text, Qt::MatchContains, 1).isEmpty();
  }
  QTreeWidget& packets() const { return *window->findChild<QTreeWidget*>("packets"); }
  QString packet(int index, int column) const {
    return packets().topLevelItem(index)->text(column);
  }

  std::unique_ptr<ChildProcess> service;
  std::unique_ptr<ConsoleWindow> window;
};

// Draws the recorded stroke with a pen; how many events it has.
int drawStroke(PenCanvas& canvas) {
  QFile file(STROKE);
  EXPECT_TRUE(file.open(QIODevice::ReadOnly));
  int count = 0;
  for (; !file.atEnd(); ++count) {
    const QJsonObject event = QJsonDocument::fromJson(file.readLine()).object();
    const QString type = event["type"].toString();
    const QPointF position(event["x"].toDouble() + 110, event["y"].toDouble() + 20);
    QTabletEvent pen(type == "press"  ? QEvent::TabletPress
                     : type == "move" ? QEvent::TabletMove
                                      : QEvent::TabletRelease,
                     position, position, QTabletEvent::Stylus, QTabletEvent::Pen,
                     event["pressure"].toDouble(), 0, 0, 0, 0, 0, {}, 1, Qt::NoButton, {});
    QApplication::sendEvent(&canvas, &pen);
  }
  return count;
}

TEST_F(AConsole, ConnectsWhatIsClickedAndSendsWhatIsDrawn) {
  startService();
  open();
  EXPECT_TRUE(shows("devices", "Backup disk", "Idle"));
  select("devices", "Backup disk");
  EXPECT_FALSE(button("devices").isEnabled()) << "there is no session to connect into";
  switchItem("desktops", "lab-2");
  EXPECT_TRUE(shows("desktops", "lab-2", "Session open"));
  EXPECT_EQ(button("devices").text(), "Connect to lab-2");
  switchItem("devices", "Backup disk");
  EXPECT_TRUE(shows("devices", "Backup disk", "Connected"));
  EXPECT_EQ(row("devices", "Backup disk")->text(2), "lab-2");
  select("printers", "Label printer");
  QTest::mouseDClick(list("printers").viewport(), Qt::LeftButton, {},
                     list("printers").visualItemRect(row("printers", "Label printer")).center());
  EXPECT_TRUE(shows("printers", "Label printer", "Connected"));
  switchItem("devices", "Firmware stick");
  EXPECT_TRUE(comes([this] { return logHas("Connect device 8 to lab-2: the service refused"); }));

  PenCanvas& canvas = *window->findChild<PenCanvas*>();
  const int count = drawStroke(canvas);
  EXPECT_EQ(packets().topLevelItemCount(), count);
  EXPECT_EQ(packet(1, 2), "0x26003");
  EXPECT_EQ(packet(1, 3), "170");  // 60 in the recording
  EXPECT_EQ(packet(1, 5), "0.350");
  EXPECT_TRUE(packet(1, 6).startsWith("27 01 d007 02000000 c2000000"))
      << packet(1, 6).toStdString();
  EXPECT_TRUE(window->grab().save(SCREENSHOTS "/console.png"));

  QTest::mouseClick(&canvas, Qt::LeftButton, {}, {7, 9});
  ASSERT_EQ(packets().topLevelItemCount(), count + 2) << "the mouse is a pen, too";
  EXPECT_EQ(packet(count, 5), "1.000");
  EXPECT_EQ(packet(count + 1, 2), "0x26002");
}

TEST_F(AConsole, SaysThatTheServiceDiedAndOpensItsSessionsAgain) {
  startService();
  open();
  EXPECT_TRUE(shows("desktops", "office-1", "No session"));
  switchItem("desktops", "office-1");
  EXPECT_TRUE(shows("desktops", "office-1", "Session open"));
  switchItem("devices", "Desk camera");
  EXPECT_TRUE(shows("devices", "Desk camera", "Connected"));
  for (int death = 0; death < 2; ++death) {
    service->kill();
    EXPECT_TRUE(bannerBecomes("The service died"));
    EXPECT_FALSE(panel("devices").isEnabled());
    EXPECT_TRUE(window->grab().save(SCREENSHOTS "/console-died.png"));
    startService();
    EXPECT_TRUE(bannerBecomes("Connected again"));
    EXPECT_TRUE(shows("devices", "Desk camera", "Idle"))
        << "the new service knows of no connection";
    EXPECT_TRUE(panel("devices").isEnabled());
    switchItem("devices", "Desk camera");  // which takes the session of office-1
    EXPECT_TRUE(shows("devices", "Desk camera", "Connected"));
  }
}

TEST_F(AConsole, StaysUsableWhileTheServiceHangsAndConnectsOnceThereIsOne) {
  open();
  EXPECT_TRUE(bannerBecomes("Looking for the peripheral service"));
  EXPECT_FALSE(panel("devices").isEnabled());
  startService();
  EXPECT_TRUE(bannerBecomes("Connected"));
  EXPECT_TRUE(shows("desktops", "office-1", "No session"));
  service->pause();
  switchItem("desktops", "office-1");
  EXPECT_GT(drawStroke(*window->findChild<PenCanvas*>()), 0);
  EXPECT_FALSE(logHas("Open session of office-1")) << "the click waited for the service";
  EXPECT_TRUE(comes([this] { return logHas("Open session of office-1: no answer"); }));
  service->signal(SIGCONT);
}

}  // namespace
}  // namespace zq::console
