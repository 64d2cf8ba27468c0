// The window, driven with keys and the mouse on a small display of its own, against the real
// service.
#include <gtest/gtest.h>

#include <QApplication>
#include <QDialog>
#include <QFile>
#include <QHelpEvent>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QScreen>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>
#include <QToolTip>
#include <QTreeWidget>
#include <cstdlib>
#include <tuple>

#include "examples/console/appearance.h"
#include "examples/console/console_window.h"
#include "examples/console/item_panel.h"
#include "examples/console/pen_canvas.h"
#include "perix/test_service.h"
#include "tests/support/tablet_event.h"
#include "tools/embedded/child_process.h"

// LeakSanitizer asks for this by its name: the platform without a display leaves its screen behind.
extern "C" [[gnu::visibility("default")]] const char* __lsan_default_suppressions() {
  return "leak:libqoffscreen";
}

namespace zq::console {
namespace {

constexpr int kPatienceMs = 5'000;
constexpr QSize kLarge(1280, 800);

// An X server of the test's own, or nothing where the window is drawn without a server.
std::unique_ptr<ChildProcess> startDisplay() {
  ::setenv("QT_QPA_PLATFORM", PLATFORM, 1);
  if (std::string_view(PLATFORM) != "xcb") return nullptr;
  auto display = std::make_unique<ChildProcess>(
      ChildProcess::Options{.arguments = {"Xvfb", "-displayfd", "3", "-screen", "0", "800x600x24"},
                            .error = ChildProcess::Stream::Capture,
                            .readiness = true});
  const auto number = display->readinessLine(std::chrono::milliseconds(kPatienceMs));
  if (!number) throw std::runtime_error("Xvfb: " + display->errorText());
  ::setenv("DISPLAY", (":" + *number).c_str(), 1);
  return display;
}

// The display and Qt, of which the process has one each, from the first test to the last.
class Screen : public testing::Environment {
 public:
  void SetUp() override {
    display_ = startDisplay();
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, settings_.path());
    QApplication::setOrganizationName("console-test");
    application_ = std::make_unique<QApplication>(count_, arguments_);
    QFont font = QApplication::font();
    font.setPixelSize(13);  // on every display the same: the room counts in lines of text
    QApplication::setFont(font);
    applyAppearance(*application_);
  }
  void TearDown() override {
    application_.reset();
    display_.reset();
  }

 private:
  QTemporaryDir settings_;
  std::unique_ptr<ChildProcess> display_;
  char name_[8] = "console";
  char* arguments_[2] = {name_, nullptr};
  int count_ = 1;
  std::unique_ptr<QApplication> application_;
};

[[maybe_unused]] auto* const screen = testing::AddGlobalTestEnvironment(new Screen);

template <typename Condition>
bool comes(Condition condition) {
  return QTest::qWaitFor(condition, kPatienceMs);
}

class Console : public testing::Test {
 protected:
  void SetUp() override { QSettings().clear(); }

  void open() {
    window = std::make_unique<ConsoleWindow>();
    window->show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(window.get()));
    window->activateWindow();
    ASSERT_TRUE(QTest::qWaitForWindowActive(window.get()));
  }
  void openWithSession(const char* desktop) {
    open();
    EXPECT_TRUE(shows("desktops", desktop, "None"));
    press("desktops", desktop, "Open");
  }

  template <typename Part>
  Part& part(const char* name) const {
    return *window->findChild<Part*>(name);
  }
  QPushButton& button(const char* panel) const {
    return *part<ItemPanel>(panel).findChild<QPushButton*>("action");
  }
  QTreeWidget& list(const char* panel) const {
    return *part<ItemPanel>(panel).findChild<QTreeWidget*>();
  }
  QTreeWidgetItem* row(const char* panel, const char* item) const {
    return list(panel).findItems(item, Qt::MatchExactly).value(0);
  }
  /// Waits until the item is there in that state.
  bool shows(const char* panel, const char* item, const char* state) const {
    return comes([=, this] {
      const QTreeWidgetItem* const found = row(panel, item);
      return found != nullptr && found->text(1) == state;
    });
  }
  void select(const char* panel, const char* item) const {
    list(panel).scrollToItem(row(panel, item));
    QTest::mouseClick(list(panel).viewport(), Qt::LeftButton, {},
                      list(panel).visualItemRect(row(panel, item)).center());
  }
  void press(const char* panel, const char* item) const {
    select(panel, item);
    QTest::mouseClick(&button(panel), Qt::LeftButton);
  }
  /// Presses the button of the item, and waits until the item is in that state.
  void press(const char* panel, const char* item, const char* state) const {
    press(panel, item);
    EXPECT_TRUE(shows(panel, item, state)) << item;
  }
  /// Plugs a device, and waits until it is there as a new device.
  uint16_t plug(const std::string& type, const char* name) {
    const auto device =
        service.plug("type = \"" + type + "\"\nname = \"" + std::string(name) + "\"");
    EXPECT_TRUE(shows("devices", name, "Waiting"));
    return device.number;
  }
  void unplug(uint16_t number, const char* name) {
    service.unplug(number);
    EXPECT_TRUE(comes([=, this] { return row("devices", name) == nullptr; }));
  }
  void alt(Qt::Key key) const { QTest::keyClick(window.get(), key, Qt::AltModifier); }
  /// Goes to an item of the list that has the keyboard, and presses Enter there.
  void enter(const char* item) const {
    QTest::keyClicks(QApplication::focusWidget(), item);
    QTest::keyClick(QApplication::focusWidget(), Qt::Key_Return);
  }
  QString title() const { return part<QLabel>("bannerTitle").text(); }
  QString detail() const { return part<QLabel>("bannerDetail").text(); }
  bool bannerBecomes(const char* text) const {
    return comes([=, this] { return title() == text; });
  }
  bool logHas(const char* text) const {
    return !part<QTreeWidget>("log").findItems(text, Qt::MatchContains, 1).isEmpty();
  }
  QString packet(int index, int column) const {
    return part<QTreeWidget>("packets").topLevelItem(index)->text(column);
  }

  PerixTestService service{{PerixTestService::Place::Beside, SCENARIO, {}, PERIX_DEVSERVICE}};
  std::unique_ptr<ConsoleWindow> window;
};

// Counts the rows that stand inside the window in full.
int visibleRows(const QTreeWidget& list) {
  int count = 0;
  for (int index = 0; list.isVisible() && index < list.topLevelItemCount(); ++index) {
    count += list.viewport()->visibleRegion().boundingRect().contains(
        list.visualItemRect(list.topLevelItem(index)));
  }
  return count;
}

// The tool tip that a mouse over a cell brings.
QString toolTipOver(const QTreeWidget& list, const QTreeWidgetItem* row) {
  const QPoint place = list.visualItemRect(row).topLeft() + QPoint(10, 5);
  QHelpEvent hover(QEvent::ToolTip, place, list.viewport()->mapToGlobal(place));
  QApplication::sendEvent(list.viewport(), &hover);
  return QToolTip::isVisible() ? QToolTip::text() : QString();
}

// Draws the recorded stroke with a pen; returns the number of its events.
int drawStroke(PenCanvas& canvas) {
  QFile file(STROKE);
  EXPECT_TRUE(file.open(QIODevice::ReadOnly));
  int count = 0;
  for (; !file.atEnd(); ++count) {
    const QJsonObject event = QJsonDocument::fromJson(file.readLine()).object();
    const QString type = event["type"].toString();
    const QPointF position(event["x"].toDouble() + 10, event["y"].toDouble() + 20);
    QTabletEvent pen = test::tabletEvent(type == "press"  ? QEvent::TabletPress
                                         : type == "move" ? QEvent::TabletMove
                                                          : QEvent::TabletRelease,
                                         position, event["pressure"].toDouble(), 0, 0, 0);
    QApplication::sendEvent(&canvas, &pen);
  }
  return count;
}

TEST_F(Console, ConnectsClickedItemAndSendsStroke) {
  open();
  window->resize(kLarge);
  EXPECT_TRUE(shows("devices", "Backup disk", "Idle"));
  select("devices", "Backup disk");
  EXPECT_FALSE(button("devices").isEnabled()) << "there is no session to connect into";
  press("desktops", "lab-2", "Open");
  EXPECT_EQ(button("devices").text(), "&Connect to lab-2");
  press("devices", "Backup disk", "Connected");
  EXPECT_EQ(row("devices", "Backup disk")->text(2), "lab-2");
  select("printers", "Label printer");
  QTest::mouseDClick(list("printers").viewport(), Qt::LeftButton, {},
                     list("printers").visualItemRect(row("printers", "Label printer")).center());
  EXPECT_TRUE(shows("printers", "Label printer", "Connected"));

  PenCanvas& canvas = *window->findChild<PenCanvas*>();
  const int count = drawStroke(canvas);
  EXPECT_EQ(part<QTreeWidget>("packets").topLevelItemCount(), count);
  EXPECT_EQ(packet(1, 2), "0x26003");
  EXPECT_EQ(packet(1, 3), "70");  // 60 in the recording
  EXPECT_EQ(packet(1, 5), "0.350");
  EXPECT_TRUE(packet(1, 6).startsWith("27 01 d007 02000000 c2000000"))
      << packet(1, 6).toStdString();
  QApplication::sendPostedEvents();  // buttons with a new text take another size
  EXPECT_TRUE(window->grab().save(SCREENSHOTS "/console.png"));

  QTest::mouseClick(&canvas, Qt::LeftButton, {}, {7, 9});
  ASSERT_EQ(part<QTreeWidget>("packets").topLevelItemCount(), count + 2)
      << "the mouse is a pen, too";
  EXPECT_EQ(packet(count, 5), "1.000");
  EXPECT_EQ(packet(count + 1, 2), "0x26002");
}

TEST_F(Console, ShowsRowsOnSmallScreensAndKeepsSize) {
  openWithSession("lab-2");
  const QSize room = QGuiApplication::primaryScreen()->availableSize();
  EXPECT_EQ(window->size().boundedTo(room), window->size()) << "larger than the screen";
  for (const QSize size : {QSize(640, 480), window->size(), QSize(800, 600), kLarge}) {
    window->resize(size);
    ASSERT_TRUE(comes([&] { return window->size() == size; })) << size.width();
    for (const char* panel : {"desktops", "devices", "printers"}) {
      EXPECT_GE(visibleRows(list(panel)), 2) << panel << " at " << size.width();
    }
    EXPECT_GE(visibleRows(part<QTreeWidget>("log")), 2) << size.width();
    EXPECT_EQ(part<QTreeWidget>("packets").isVisible(), size == kLarge) << size.width();
  }
  window->resize(700, 500);
  window.reset();
  open();
  EXPECT_EQ(window->size(), QSize(700, 500));
}

TEST_F(Console, DoesEverythingByKeys) {
  open();
  EXPECT_TRUE(comes([this] { return list("desktops").hasFocus(); }));
  enter("lab");
  EXPECT_TRUE(shows("desktops", "lab-2", "Open"));
  alt(Qt::Key_V);
  enter("Backup");
  EXPECT_TRUE(shows("devices", "Backup disk", "Connected"));
  alt(Qt::Key_C);
  EXPECT_TRUE(shows("devices", "Backup disk", "Idle"));
  alt(Qt::Key_P);
  enter("Corridor");
  EXPECT_TRUE(shows("printers", "Corridor", "Connected"));
  QTest::keyClick(window.get(), Qt::Key_F5);
  EXPECT_TRUE(comes([this] { return logHas("Refresh: done"); }));
  QStringList help;
  QTimer::singleShot(0, window.get(), [&] {
    for (const auto* label : part<QDialog>("shortcuts").findChildren<QLabel*>()) {
      help.append(label->text());
    }
    QTest::keyClick(&part<QDialog>("shortcuts"), Qt::Key_Escape);
  });
  QTest::keyClick(window.get(), Qt::Key_F1);
  for (const char* keys : {"F5, Alt+R", "Return, Enter", "Alt+C", "Alt+N"}) {
    EXPECT_TRUE(help.contains(keys)) << keys;
  }
}

TEST_F(Console, ShowsFailureUntilSuccessOrDismissal) {
  openWithSession("lab-2");
  service.setFault("connectPrinter", "error");
  const char* const failures[][4] = {
      {"devices", "Firmware stick", "Connect Firmware stick to lab-2",
       "The service refused: forbidden by the device's policy (result 7)"},
      {"printers", "Corridor", "Connect Corridor to lab-2",
       "The service answered with an error: "}};
  for (const auto& [panel, item, failed, reason] : failures) {
    press(panel, item);
    EXPECT_TRUE(bannerBecomes(failed));
    EXPECT_TRUE(detail().startsWith(reason)) << detail().toStdString();
    EXPECT_TRUE(logHas(failed));
  }
  plug("camera", "New camera");
  EXPECT_EQ(title(), "Connect Corridor to lab-2") << "an event put the failure away";
  QTest::keyClick(window.get(), Qt::Key_Escape);
  EXPECT_EQ(title(), "Connected");
  press("devices", "Firmware stick");
  EXPECT_TRUE(bannerBecomes("Connect Firmware stick to lab-2"));
  press("printers", "Corridor");
  EXPECT_TRUE(bannerBecomes("Connected"));
}

TEST_F(Console, ConfiguresOrIgnoresNewDevices) {
  openWithSession("lab-2");
  using Text = const char*;
  // The decision ends the arguments: type, automatic connection, announcement.
  const std::tuple<Text, bool, Qt::Key, Text, Text, Text> rows[] = {
      {"camera", false, Qt::Key_C, "Connected", "configNewDeviceAsConnect", ",0,0,1]"},
      {"disk", true, Qt::Key_C, "Connected", "configNewDeviceAsConnect", ",0,1,1]"},
      {"scanner", false, Qt::Key_I, "Ignored", "configNewDeviceAsIgnore", ",0,0,1]"},
      {"pen", true, Qt::Key_I, "Ignored", "configNewDeviceAsIgnore", ",0,0,0]"}};
  for (const auto& [type, always, key, state, method, decision] : rows) {
    service.clearCalls();
    const uint16_t device = plug(type, "New");
    select("devices", "New");
    if (always) alt(Qt::Key_A);
    alt(key);
    EXPECT_TRUE(shows("devices", "New", state)) << type;
    const std::string arguments = service.awaitCalls(method).at(0).arguments;
    EXPECT_TRUE(QString::fromStdString(arguments).endsWith(decision)) << arguments;
    EXPECT_FALSE(part<QPushButton>("ignore").isVisible());
    unplug(device, "New");
  }
}

TEST_F(Console, ShowsLongNamesAsToolTips) {
  open();
  const QByteArray name = QByteArray("Camera with a very long name ").repeated(4) + "<b>";
  plug("camera", name);
  EXPECT_EQ(toolTipOver(list("devices"), row("devices", "Headset")), QString());
  EXPECT_TRUE(toolTipOver(list("devices"), row("devices", name)).contains("name &lt;b&gt;"));
}

TEST_F(Console, TellsDeathAndOpensSessionsAgain) {
  openWithSession("office-1");
  press("desktops", "lab-2", "Open");
  press("desktops", "lab-2", "None");
  select("desktops", "office-1");
  unplug(plug("camera", "New camera"), "New camera");
  for (int death = 0; death < 2; ++death) {
    service.stop();
    EXPECT_TRUE(bannerBecomes("The service died"));
    EXPECT_FALSE(button("devices").isEnabled());
    EXPECT_TRUE(window->grab().save(SCREENSHOTS "/console-died.png"));
    service.start();
    EXPECT_TRUE(bannerBecomes("Connected again"));
    EXPECT_TRUE(shows("devices", "Desk camera", "Idle"))
        << "the new service knows of no connection";
    EXPECT_TRUE(comes([this] { return button("devices").isEnabled(); }));
    press("devices", "Desk camera", "Connected");  // which takes the session of office-1
    EXPECT_EQ(row("desktops", "lab-2")->text(1), "None") << "an ended session was opened again";
  }
}

TEST_F(Console, TellsThatItWaitsWhileServiceHangs) {
  service.stop();
  open();
  EXPECT_TRUE(bannerBecomes("Looking for the peripheral service"));
  EXPECT_FALSE(button("desktops").isEnabled());
  service.start();
  EXPECT_TRUE(bannerBecomes("Connected"));
  EXPECT_TRUE(shows("desktops", "office-1", "None"));
  service.pause();
  press("desktops", "office-1");
  EXPECT_TRUE(bannerBecomes("Open session of office-1"));
  EXPECT_TRUE(window->findChild<QProgressBar*>()->isVisible());
  EXPECT_FALSE(button("desktops").isEnabled());
  select("desktops", "lab-2");
  EXPECT_EQ(list("desktops").currentItem()->text(0), "lab-2") << "lists can be read meanwhile";
  EXPECT_TRUE(comes([this] { return logHas("Open session of office-1: no answer"); }));
  EXPECT_TRUE(comes([this] { return detail().startsWith("No answer: "); }));
  EXPECT_FALSE(window->findChild<QProgressBar*>()->isVisible());
  service.resume();
  EXPECT_TRUE(comes([this] { return button("desktops").isEnabled(); }));
}

TEST_F(Console, FollowsDarkPalette) {
  open();
  const auto lightness = [this] { return window->grab().toImage().pixelColor(2, 2).lightness(); };
  const QPalette before = QApplication::palette();
  EXPECT_GT(lightness(), 200);
  QApplication::setPalette(QPalette(Qt::black));
  EXPECT_TRUE(comes([&] { return lightness() < 50; }));
  QApplication::setPalette(before);
  EXPECT_TRUE(comes([&] { return lightness() > 200; }));
}

}  // namespace
}  // namespace zq::console
