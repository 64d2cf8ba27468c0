#include "service/scenario/state.h"

#include <type_traits>

#include "platform/text/hex.h"
#include "service/model/wire_records.h"
#include "service/scenario/fields.h"

namespace zq::devservice {
namespace {

std::string asKey(const std::string& key) {
  return key;
}

std::string asKey(int64_t key) {
  return std::to_string(key);
}

template <typename Value>
Json asJson(const Value& value);

/// Writes the fields of a record into an object.
struct JsonWriter {
  template <typename Record>
  using Of = const Record;

  template <typename Value>
  void field(const char* key, const Value& value, const Rule& /*rule*/ = {}) {
    object[key] = asJson(value);
  }
  template <typename Value>
  void shown(const char* key, const Value& value) {
    object[key] = asJson(value);
  }

  Json object = Json::object();
};

/// An enumerator is its word, a map an object, another range an array, a record its fields.
template <typename Value>
Json asJson(const Value& value) {
  Json json;
  if constexpr (std::is_enum_v<Value>) {
    const char* word = TextOf(value);
    json = word == nullptr ? "unknown" : word;
  } else if constexpr (std::is_arithmetic_v<Value> || std::is_same_v<Value, std::string>) {
    json = value;
  } else if constexpr (requires { value.has_value(); }) {
    if (value) json = asJson(*value);
  } else if constexpr (requires { typename Value::mapped_type; }) {
    json = Json::object();
    for (const auto& [key, mapped] : value) json[asKey(key)] = asJson(mapped);
  } else if constexpr (requires { value.begin(); }) {
    json = Json::array();
    for (const auto& element : value) json.push_back(asJson(element));
  } else {
    JsonWriter writer;
    fields(writer, value);
    json = std::move(writer.object);
  }
  return json;
}

/// The values of a map whose keys stand in its values.
template <typename Key, typename Value>
Json valuesOf(const std::map<Key, Value>& values) {
  Json list = Json::array();
  for (const auto& [key, value] : values) list.push_back(asJson(value));
  return list;
}

/// One object for each vendor and product: the ids, and what `write` adds.
template <typename Value, typename Write>
Json byVidPid(const std::map<VidPid, Value>& values, const Write& write) {
  Json list = Json::array();
  for (const auto& [id, value] : values) {
    JsonWriter writer;
    fields(writer, id);
    write(writer, value);
    list.push_back(std::move(writer.object));
  }
  return list;
}

Json settingsAsJson(const World& world) {
  const auto fieldsOf = [](JsonWriter& writer, const auto& value) { fields(writer, value); };
  const auto valueOf = [](JsonWriter& writer, const auto& v) { writer.field("value", v); };
  const Settings& settings = world.settings;
  return {{"policies", byVidPid(world.devices.policies(), fieldsOf)},
          {"autoConnect", asJson(world.devices.autoConnected())},
          {"localProperties", byVidPid(settings.defaults, valueOf)},
          {"properties", byVidPid(settings.properties, valueOf)},
          {"turbo", byVidPid(settings.turbo, valueOf)},
          {"joystickMappings", byVidPid(settings.joystickMappings, valueOf)},
          {"cameraAuthorized", settings.cameraAuthorized}};
}

Json penAsJson(const World& world) {
  const auto pens = world.devices.ofType(DeviceType::Pen);
  if (pens.empty()) return nullptr;
  const auto announcement = penAnnouncement(*pens.front());
  return {{"devNumber", pens.front()->number}, {"announcement", inHex(announcement.view())}};
}

}  // namespace

Json printersAsJson(const World& world) {
  return valuesOf(world.printers.all());
}

Json driversAsJson(const std::vector<Driver>& drivers) {
  return asJson(drivers);
}

Json stateAsJson(const World& world) {
  return {{"desktops", asJson(world.desktops.all())},
          {"devices", valuesOf(world.devices.all())},
          {"printers", printersAsJson(world)},
          {"drivers", driversAsJson(world.printerBackend->drivers())},
          {"sharedHosts", asJson(world.search.hosts())},
          {"settings", settingsAsJson(world)},
          {"pen", penAsJson(world)},
          {"session",
           {{"tokenLength", world.tokenLength}, {"searchesRunning", world.search.running()}}}};
}

}  // namespace zq::devservice
