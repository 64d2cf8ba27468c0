// device and disk: lists, connecting, configuration.
#include <algorithm>

#include "platform/text/hex.h"
#include "tools/perixctl/command.h"
#include "tools/perixctl/command_error.h"
#include "tools/perixctl/record_documents.h"
#include "tools/perixctl/service_words.h"

namespace zq::ctl {
namespace {

Outcome listDevices(Run& run) {
  PerixProxy& proxy = run.proxy();
  const std::string desktop = run.desktop();
  const auto devices = desktop.empty() ? proxy.GetLocalDeviceList() : proxy.GetDeviceList(desktop);
  requireAnswer();
  return deviceTable(proxy, devices);
}

Outcome deviceStatus(Run& run) {
  const auto devices = run.deviceRecords();
  return deviceTable(run.proxy(), devices);
}

// An operation that takes a device either by its number or by its source id.
struct DeviceOperation {
  int (PerixProxy::*byNumber)(std::string, unsigned short);
  int (PerixProxy::*bySource)(std::string, unsigned long long);
};

int apply(Run& run, const DeviceOperation& operation) {
  PerixProxy& proxy = run.proxy();
  const std::string desktop = run.desktop();
  const Arguments& arguments = run.arguments;
  if (arguments.has("--source-id")) {
    return (proxy.*operation.bySource)(desktop, arguments.number<uint64_t>("--source-id"));
  }
  const auto source = parseNumber<uint64_t>(arguments.text("DEVICE"));
  if (source && *source > UINT16_MAX) return (proxy.*operation.bySource)(desktop, *source);
  return (proxy.*operation.byNumber)(desktop, run.deviceNumber());
}

int connectDevice(Run& run) {
  return apply(run, {&PerixProxy::ConnectDevice, &PerixProxy::ConnectDeviceBySrcId});
}

int disconnectDevice(Run& run) {
  return apply(run, {&PerixProxy::DisconnectDevice, &PerixProxy::DisconnectDeviceBySrcId});
}

int redirectDevice(Run& run) {
  return run.proxy().RedirectDevice(run.desktop(), run.deviceNumber(),
                                    run.arguments.number<uint16_t>("MODE"));
}

Outcome showAutoConnect(Run& run) {
  const auto type = run.arguments.number<uint16_t>("TYPE");
  const int value = run.proxy().GetAutoConnect(type);
  requireAnswer();
  const char* word = wordFor(kSwitches, value, "?");
  return sentenceOf(
      {{"autoConnect", value}, {"switch", word}},
      "devices of type " + run.arguments.text("TYPE") + " connect by themselves: " + word);
}

int setAutoConnect(Run& run) {
  return run.proxy().SetAutoConnect(run.arguments.number<uint16_t>("TYPE"),
                                    run.arguments.isOn("SWITCH") ? 1 : 0);
}

int addNetworkDevice(Run& run) {
  std::string text = run.arguments.text("TEXT");
  return run.proxy().AddNetworkDevice(run.arguments.number<int32_t>("TYPE"), text);
}

int removeNetworkDevice(Run& run) {
  std::string name = run.arguments.text("NAME");
  std::string address = run.arguments.text("ADDRESS");
  return run.proxy().DeleteNetworkDevice(name, address);
}

UDevInfo usbDevice(Run& run) {
  UDevInfo info{};
  const auto bytes = fromHex(run.arguments.text("BYTES")).value_or(std::vector<uint8_t>{});
  std::copy_n(bytes.begin(), std::min(bytes.size(), sizeof(info.bytes)), info.bytes);
  return info;
}

int setUsbredirStatus(Run& run) {
  return run.proxy().SetUsbredirStatus(run.desktop(), usbDevice(run),
                                       run.arguments.number<uint16_t>("STATUS"));
}

int configureDevice(Run& run) {
  const Arguments& arguments = run.arguments;
  return run.proxy().ConfigNewDeviceAsConnect(
      run.desktop(), run.deviceSource(), arguments.number<uint16_t>("--type"),
      arguments.has("--auto-connect") ? 1 : 0, arguments.has("--no-popup") ? 0 : 1);
}

int ignoreDevice(Run& run) {
  const Arguments& arguments = run.arguments;
  return run.proxy().ConfigNewDeviceAsIgnore(
      run.deviceSource(), arguments.number<uint16_t>("--type"),
      arguments.has("--auto-connect") ? 1 : 0, arguments.has("--no-popup") ? 0 : 1);
}

int diskCommand(Run& run) {
  return run.proxy().ConfigUdisks2Command(run.desktop(), run.deviceSource(),
                                          run.arguments.number<uint16_t>("COMMAND"));
}

const Argument kDeviceOrSource{"DEVICE", ArgumentKind::Device,
                               "The device: its number, its source id or its name",
                               Presence::OneOf};
const Argument kSourceOption{"--source-id", ArgumentKind::UInt64,
                             "The device's source id, also one below 65536", Presence::OneOf};
const Argument kType{.name = "TYPE",
                     .kind = ArgumentKind::Word,
                     .help = "The type of device",
                     .words = kDeviceTypes,
                     .sample = "camera"};
const Argument kUsbBytes{"BYTES", ArgumentKind::UsbDevice, "The device's eight bytes, in hex"};
const Argument kTypeOption{"--type", ArgumentKind::Word, "The type of device; its own without it",
                           Presence::Optional, kDeviceTypes};
const Argument kAutoConnect{"--auto-connect", ArgumentKind::Flag,
                            "Connect such devices automatically from now on", Presence::Optional};
const Argument kNoPopup{"--no-popup", ArgumentKind::Flag, "Announce such devices no more",
                        Presence::Optional};

std::vector<Command> connectionCommands() {
  return {
      {"device list",
       {optionalDesktopArgument()},
       "List the devices that a desktop can use",
       listDevices},
      {"device status", {deviceArgument()}, "Show one device", deviceStatus},
      {"device connect",
       {desktopArgument(), kDeviceOrSource, kSourceOption},
       "Connect a device into a desktop",
       status(connectDevice)},
      {"device disconnect",
       {desktopArgument(), kDeviceOrSource, kSourceOption},
       "Take a device out of a desktop",
       status(disconnectDevice)},
      {"device redirect",
       {desktopArgument(),
        deviceArgument(),
        {.name = "MODE",
         .kind = ArgumentKind::Word,
         .help = "The direction",
         .words = kRedirectionModes}},
       "Take a device into a desktop, or out of it",
       status(redirectDevice)},
  };
}

std::vector<Command> networkAndUsbCommands() {
  return {
      {"device network add",
       {{.name = "TYPE",
         .kind = ArgumentKind::Word,
         .help = "The type of device",
         .words = kDeviceTypes},
        {"TEXT",
         ArgumentKind::Text,
         "NAME@ADDRESS, or an address",
         Presence::Required,
         {},
         "scanner@10.0.0.9"}},
       "Add a device reached over the network",
       status(addNetworkDevice)},
      {"device network remove",
       {{"NAME", ArgumentKind::Text, "The device's name"},
        {"ADDRESS", ArgumentKind::Text, "Its address, empty for any"}},
       "Remove a device reached over the network",
       status(removeNetworkDevice)},
      {"device usbredir set",
       {desktopArgument(), kUsbBytes, {"STATUS", ArgumentKind::UInt16, "The state to report"}},
       "Report the state of a USB redirection",
       status(setUsbredirStatus)},
      {"device usbredir connect",
       {desktopArgument(), kUsbBytes},
       "Do nothing, as the operation does; kept for old scripts",
       status([](Run& run) { return run.proxy().ConnectUsbredir(run.desktop(), usbDevice(run)); })},
      {"device usbredir disconnect",
       {desktopArgument(), kUsbBytes},
       "Do nothing, as the operation does; kept for old scripts",
       status(
           [](Run& run) { return run.proxy().DisconnectUsbredir(run.desktop(), usbDevice(run)); })},
  };
}

std::vector<Command> configurationCommands() {
  return {
      {"device autoconnect get",
       {kType},
       "Show whether a type of devices connects automatically",
       showAutoConnect},
      {"device autoconnect set",
       {kType, {"SWITCH", ArgumentKind::Switch, "on or off"}},
       "Switch automatic connection of a type of devices",
       status(setAutoConnect)},
      {"device configure",
       {desktopArgument(), deviceArgument(), kTypeOption, kAutoConnect, kNoPopup},
       "Connect a newly plugged device; the outcome follows as an event",
       status(configureDevice)},
      {"device ignore",
       {deviceArgument(), kTypeOption, kAutoConnect, kNoPopup},
       "Ignore a newly plugged device; the outcome follows as an event",
       status(ignoreDevice)},
      {"disk command",
       {desktopArgument(),
        deviceArgument(),
        {.name = "COMMAND",
         .kind = ArgumentKind::Word,
         .help = "The command",
         .words = kDiskCommands}},
       "Send a command to a disk",
       status(diskCommand)},
  };
}

}  // namespace

std::vector<Command> deviceCommands() {
  return joined({connectionCommands(), networkAndUsbCommands(), configurationCommands()});
}

}  // namespace zq::ctl
