#include "bus_connection.h"

#include <unistd.h>

#include <cstring>
#include <string>

#include "bus_log.h"
#include "sd_bus_open.h"

namespace zq {
namespace {


constexpr std::size_t kMaxTrustEntries = 1024;
constexpr int kPingTimeoutMs = 1000;

/// Never destroyed: the library's threads may ask the bus until the process has ended.
const Channel::Target& theBus() {
  static const auto* const target = new Channel::Target{kBusName, kBusPath, kBusName, nullptr};
  return *target;
}

}  // namespace

std::shared_ptr<BusConnection> BusConnection::open(DeliveryQueue& deliveries,
                                                   Clock::time_point deadline, std::string& error) {
  SdBus bus = openSdBus(deadline, error);
  if (bus == nullptr) return nullptr;
  auto connection =
      std::make_shared<BusConnection>(std::move(bus), deliveries, ZQBusFailure::BusGone);
  if (const int started = connection->start(); started < 0) {
    error = std::string("cannot read the bus: ") + std::strerror(-started);
    return nullptr;
  }
  return connection;
}

BusConnection::~BusConnection() {
  stop();
  const Reader::Hold hold(*reader_);
  owners_.clear();
}

std::shared_ptr<ZQBusMessage> BusConnection::askBus(const char* method, const std::string& name,
                                                    const CallExtras& extras) {
  ZQBusMessage request(ZQBusMessageType::MethodCall, method);
  request.appendString(name);
  return call(theBus(), request, -1, extras);
}

std::string BusConnection::ownerOf(const std::string& service) {
  uint64_t changes = 0;
  // Changes are subscribed to first and the owner asked for then: none is missed.
  const auto subscribe = [&] {
    track(service);
    changes = owners_[service].changes;
  };
  const auto reply = askBus("GetNameOwner", serviceName(service), {-1, subscribe});
  std::string owner;
  reply->readString(owner, 0);
  if (reply->type() != 2) owner.clear();
  const bool answered = reply->type() == 2 || reply->failure() == ZQBusFailure::PeerGone;
  if (!answered) return {};

  const Reader::Hold hold(*reader_);
  // A change that was announced meanwhile is newer than the answer.
  if (owners_[service].changes == changes) setOwner(service, owner);
  return owners_[service].owner;
}

bool BusConnection::isTrusted(const std::string& uniqueName) {
  {
    const Reader::Hold hold(*reader_);
    const auto known = trust_.find(uniqueName);
    if (known != trust_.end()) return known->second;
  }
  const auto reply = askBus("GetConnectionUnixUser", uniqueName);
  const auto user = static_cast<uid_t>(reply->readInt32(0));
  const bool trusted =
      reply->type() == 2 && reply->argCount() == 1 && (user == ::geteuid() || user == 0);

  const Reader::Hold hold(*reader_);
  if (trust_.size() >= kMaxTrustEntries) trust_.clear();
  trust_[uniqueName] = trusted;
  return trusted;
}

bool BusConnection::mayBeAlive(const std::string& uniqueName) {
  const ZQBusMessage ping(ZQBusMessageType::MethodCall, "Ping");
  const Target target{uniqueName, "/", "org.freedesktop.DBus.Peer", nullptr};
  return call(target, ping, kPingTimeoutMs)->failure() != ZQBusFailure::PeerGone;
}

void BusConnection::track(const std::string& service) {
  if (owners_.contains(service)) return;
  const std::string match = std::string("type='signal',sender='") + kBusName + "',interface='" +
                            kBusName + "',member='NameOwnerChanged',arg0='" + serviceName(service) +
                            '\'';
  // Without a handler of its own for the answer, sd-bus would close the connection on a refusal.
  const auto onAnswer = [](sd_bus_message* answer, void*, sd_bus_error*) {
    logRefusal(answer);
    return 1;
  };
  sd_bus_slot* slot = nullptr;
  sd_bus_add_match_async(reader_->bus(), &slot, match.c_str(), &onNameOwnerChanged, onAnswer, this);
  owners_[service].match.reset(slot);
}

int BusConnection::onNameOwnerChanged(sd_bus_message* message, void* userdata, sd_bus_error*) {
  if (!isFromBus(message)) return 0;
  const char* name = "";
  const char* before = "";
  const char* now = "";
  if (sd_bus_message_read(message, "sss", &name, &before, &now) < 0) return 0;
  auto& connection = *static_cast<BusConnection*>(userdata);
  for (auto& [service, owner] : connection.owners_) {
    if (serviceName(service) != name) continue;
    ++owner.changes;
    connection.setOwner(service, now);
  }
  return 0;
}

void BusConnection::setOwner(const std::string& service, const std::string& owner) {
  owners_[service].owner = owner;
  declareDeadIf([&](const Peer& peer) { return peer.service == service && peer.owner != owner; });
}

std::shared_ptr<Peer> BusConnection::bind(const std::string& service, const std::string& owner) {
  const auto peer = addPeer(service, owner);
  const Reader::Hold hold(*reader_);
  if (owners_[service].owner != owner) peer->gone = true;
  return peer;
}

void BusConnection::onConnectionLost() {
  busLog("the connection to the bus is lost");
  Channel::onConnectionLost();
  owners_.clear();
}

}  // namespace zq
