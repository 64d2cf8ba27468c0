// The pen's port: openings, blocks of any content and pen events in any order, beside a model of
// when a packet goes out and what its header says.
#include <cstring>
#include <optional>

#include "fuzz/input.h"
#include "perix/perix_proxy.h"

namespace zq::fuzz {
namespace {

constexpr std::size_t kHeaderSize = 16;
constexpr std::size_t kPacketSize = 198;
constexpr const char* kNames[] = {"", "space.port.2", "a.space.port.2.b", "space.port.1", "space"};

struct Sent {
  std::string name;
  std::vector<unsigned char> packet;
};
std::optional<Sent> sent;

/// What is known of the port.
struct Model {
  bool initialised = false;
  bool opened = false;
  std::string name;
  uint16_t requests = 0;
  uint8_t pen = 0;

  static bool isPenPort(const std::string& name) {
    return name.find("space.port.2") != std::string::npos;
  }
};

template <typename T>
T at(const std::vector<unsigned char>& packet, std::size_t offset) {
  T value;
  std::memcpy(&value, packet.data() + offset, sizeof value);
  return value;
}

unsigned int keep(const std::string& name, unsigned int size, unsigned char* data) {
  sent = Sent{name, {data, data + size}};
  return 0;
}

void openPort(PerixProxy& proxy, Model& model, FuzzedDataProvider& input) {
  const std::string name = input.PickValueInArray(kNames);
  const bool opened = input.ConsumeBool();
  proxy.PortInit(name, opened, keep);
  if (!Model::isPenPort(name)) return;
  model.initialised = true;
  model.opened = opened;
  model.name = name;
  model.requests = 0;
}

void changePort(PerixProxy& proxy, Model& model, FuzzedDataProvider& input) {
  const std::string name = input.PickValueInArray(kNames);
  const bool opened = input.ConsumeBool();
  proxy.PortStatus(name, opened);
  if (Model::isPenPort(name)) model.opened = opened;
}

void receiveBlock(PerixProxy& proxy, Model& model, FuzzedDataProvider& input) {
  // Blocks of random bytes seldom announce a pen.
  constexpr uint16_t kAnnouncement = 2101;
  auto block = input.ConsumeBytes<unsigned char>(input.ConsumeIntegralInRange<std::size_t>(0, 40));
  block.resize(std::max(block.size(), kHeaderSize));
  if (input.ConsumeBool()) std::memcpy(&block[2], &kAnnouncement, sizeof kAnnouncement);
  // A copy that ends where the block ends, as a block from a socket may.
  const std::vector<unsigned char> exact(block);
  proxy.PortData("", const_cast<unsigned char*>(exact.data()), exact.size());
  if (model.pen == 0 && at<uint16_t>(block, 2) == kAnnouncement) model.pen = block[1];
}

void requirePacket(const Model& model, const Sent& packet, int x) {
  require(packet.name == model.name && packet.packet.size() == kPacketSize);
  require(at<int32_t>(packet.packet, 0) == 194 && packet.packet[4] == 0x27);
  require(packet.packet[5] == model.pen && at<uint16_t>(packet.packet, 6) == 2000);
  require(at<uint32_t>(packet.packet, 8) == model.requests);
  require(at<int32_t>(packet.packet, 20 + 50) == x);
}

void movePen(PerixProxy& proxy, Model& model, FuzzedDataProvider& input) {
  PenEvent event;
  event.type = input.ConsumeIntegralInRange(86, 94);
  event.y = input.ConsumeIntegral<int16_t>();
  event.pressure = input.ConsumeFloatingPointInRange(0.0, 1.0);
  event.xTilt = input.ConsumeIntegral<int8_t>();
  event.yTilt = input.ConsumeIntegral<int8_t>();
  event.rotation = input.ConsumeFloatingPointInRange(-360.0, 360.0);
  event.x = input.ConsumeIntegral<int32_t>();
  sent.reset();
  require(proxy.SendPenEvent(event) == 0);
  const bool goesOut = model.initialised && model.opened && model.pen != 0;
  require(sent.has_value() == goesOut);
  if (!goesOut) return;
  ++model.requests;
  requirePacket(model, *sent, event.x);
}

}  // namespace
}  // namespace zq::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  using namespace zq::fuzz;
  FuzzedDataProvider input(data, size);
  zq::PerixProxy proxy;  // never connected: nothing of this asks the service
  Model model;
  while (input.remaining_bytes() > 0) {
    switch (input.ConsumeIntegralInRange(0, 4)) {
      case 0:
        openPort(proxy, model, input);
        break;
      case 1:
        changePort(proxy, model, input);
        break;
      case 2:
        receiveBlock(proxy, model, input);
        break;
      default:
        movePen(proxy, model, input);
        break;
    }
  }
  return 0;
}
