// Pen input: the packets that reach the port, byte by byte, from a tablet event of Qt and from the
// record that stands for it. Is built with Qt 5 and with Qt 6; the library reads the events of one.
#include <gtest/gtest.h>

#include <cstring>

#include "perix/perix_proxy.h"
#include "perix/qt_pen_event.h"
#include "tests/support/tablet_event.h"

namespace zq {
namespace {

constexpr char kPort[] = "com.space.port.2-pen";

struct Sent {
  std::string port;
  std::string packet;

  template <typename T>
  T at(std::size_t offset) const {
    T value;
    std::memcpy(&value, packet.data() + offset, sizeof value);
    return value;
  }
  uint32_t request() const { return at<uint32_t>(4 + 4); }
  /// A slot's value; the record lies behind the length and the header.
  int32_t slot(std::size_t number) const { return at<int32_t>(4 + 16 + 2 + 8 * number); }
};

enum class Way { TabletEvent, Record };

class Pen : public testing::TestWithParam<Way> {
 protected:
  void open(bool opened = true) {
    proxy.PortInit(kPort, opened,
                   [this](const std::string& port, unsigned int size, unsigned char* data) {
                     sent.push_back({port, std::string(reinterpret_cast<char*>(data), size)});
                     return 0U;
                   });
  }
  void announce(uint8_t device, uint16_t command = 2101) {
    unsigned char block[16] = {0x27, device};
    std::memcpy(block + 2, &command, sizeof command);
    proxy.PortData(kPort, block, sizeof block);
  }
  int send(QEvent::Type type, int x = -1, int y = -1) {
    QTabletEvent event = test::tabletEvent(type, {30, 40}, 0.5, -12, 34, -10.25);
    if (GetParam() == Way::TabletEvent) return proxy.SendPenData("", &event, 0, x, y);
    PenEvent record = PenEventOf(event);
    if (x != -1) record.x = x;
    if (y != -1) record.y = y;
    return proxy.SendPenEvent(record);
  }

  PerixProxy proxy;
  std::vector<Sent> sent;
};

#ifdef LIBRARY_READS_THIS_QT
INSTANTIATE_TEST_SUITE_P(TabletEvent, Pen, testing::Values(Way::TabletEvent));
#endif
INSTANTIATE_TEST_SUITE_P(Record, Pen, testing::Values(Way::Record));

TEST_P(Pen, IsSilentWithoutPortOrDevice) {
  send(QEvent::TabletPress);
  open(false);
  announce(0, 2100);
  announce(0, 2101);
  send(QEvent::TabletPress);
  announce(5);
  announce(6);  // the first one stays
  send(QEvent::TabletPress);
  proxy.PortStatus("space.port.1", true);
  send(QEvent::TabletPress);
  proxy.PortInit("space.port.1", true, nullptr);
  EXPECT_TRUE(sent.empty());
  proxy.PortStatus(kPort, true);
  EXPECT_EQ(send(QEvent::TabletPress), 0);
  ASSERT_EQ(sent.size(), 1U);
  EXPECT_EQ(sent[0].port, kPort);
  EXPECT_EQ(sent[0].request(), 1U);  // what was dropped took no number
  EXPECT_EQ(sent[0].packet[5], 5);
  QTabletEvent* const none = nullptr;
  EXPECT_EQ(proxy.SendPenData("", none, 0, 1, 1), -1);
  EXPECT_EQ(proxy.SendPenData("", none, 1, 1, 1), -1);
  EXPECT_EQ(sent.size(), 1U);
}

TEST_P(Pen, SendsEveryByteInItsPlace) {
  open();
  announce(5);
  send(QEvent::TabletPress, -1, 50);
  std::string want(198, '\0');
  const auto put = [&](std::size_t offset, auto value) {
    std::memcpy(&want[offset], &value, sizeof value);
  };
  put(0, int32_t{194});
  put(4, uint8_t{0x27});
  put(5, uint8_t{5});
  put(6, uint16_t{2000});
  put(8, uint32_t{1});
  put(12, uint32_t{194});
  put(20, uint8_t{0xFF});
  put(20 + 2, int32_t{3});
  put(20 + 26, int32_t{0x26003});
  put(20 + 50, int32_t{30});
  put(20 + 54, int32_t{50});
  put(20 + 138, int32_t{15});
  put(20 + 146, int32_t{512});
  put(20 + 154, int32_t{-10496});
  put(20 + 162, int32_t{-12});
  put(20 + 170, int32_t{34});
  ASSERT_EQ(sent.size(), 1U);
  EXPECT_EQ(sent[0].packet, want);
}

TEST_P(Pen, TellsPressingDraggingAndHoveringApart) {
  open();
  announce(5);
  const std::pair<QEvent::Type, int> steps[] = {
      {QEvent::TabletMove, 0x26002}, {QEvent::TabletPress, 0x26003},
      {QEvent::TabletMove, 0x26016}, {QEvent::TabletRelease, 0x26002},
      {QEvent::TabletMove, 0x26002}, {QEvent::TabletEnterProximity, 171},
  };
  for (const auto& [type, code] : steps) {
    send(type);
    EXPECT_EQ(sent.back().slot(3), code) << type;
  }
  send(QEvent::TabletPress);
  open();  // a new channel counts anew, and the pen is still down
  send(QEvent::TabletMove);
  EXPECT_EQ(sent.back().slot(3), 0x26016);
  EXPECT_EQ(sent.back().request(), 1U);
}

TEST_P(Pen, CountsRequestsInSixteenBits) {
  open();
  announce(5);
  for (int i = 0; i < 65536; ++i) send(QEvent::TabletMove);
  EXPECT_EQ(sent[65534].request(), 65535U);
  EXPECT_EQ(sent[65535].request(), 0U);
}

TEST_P(Pen, OutlivesFunctionOfClient) {
  int calls = 0;
  // On the heap, so that a sanitizer sees a use after the end.
  const auto text = std::make_shared<std::string>(100, 'x');
  const std::string longPort = std::string(kPort) + *text;
  const auto replace = [&, text](const std::string& port, unsigned int, unsigned char*) {
    ++calls;
    open();
    send(QEvent::TabletMove);  // through the new channel
    EXPECT_EQ(port, longPort);
    EXPECT_EQ(text->size(), 100U);
    return 0U;
  };
  proxy.PortInit(longPort, true, replace);
  announce(5);
  EXPECT_EQ(send(QEvent::TabletPress), 0);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(sent.size(), 1U);
  const auto throwing = [&](const std::string&, unsigned int, unsigned char*) -> unsigned int {
    throw ++calls;
  };
  proxy.PortInit(kPort, true, throwing);
  EXPECT_EQ(send(QEvent::TabletMove), 0);
  EXPECT_EQ(calls, 2);
}

}  // namespace
}  // namespace zq
