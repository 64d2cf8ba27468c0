// From a service that answers to a device in a desktop.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/util/util.h"
#include "tools/perixctl/bus.h"
#include "tools/perixctl/diagnosis.h"
#include "tools/perixctl/suggestion.h"
#include "tools/perixctl/why/case.h"
#include "tools/perixctl/why/links.h"
#include "tools/perixctl/why/log_files.h"
#include "tools/perixctl/why/machine.h"

namespace zq::ctl {
namespace {

Finding checkDesktop(Case& about) {
  const auto known = about.desktops.find(about.desktop);
  if (known != about.desktops.end()) {
    about.desktopId = static_cast<uint32_t>(known->second);
    return good(about.desktop + " is desktop " + std::to_string(known->second));
  }
  std::vector<std::string> names;
  std::string list;
  for (const auto& [name, id] : about.desktops) {
    names.push_back(name);
    list += (list.empty() ? "; there are: " : ", ") + name;
  }
  return broken(
      "no desktop is called '" + about.desktop + "'" + list + didYouMean(about.desktop, names),
      "connect it with its client, or give a name that perixctl desktop list shows");
}

/// Whether a device is connected to the desktop, which proves that its session is open.
bool isInUse(Case& about) {
  PerixProxy& proxy = about.run.proxy();
  const auto devices = proxy.GetLocalDeviceList();
  if (!refusal().empty()) return false;
  const bool found = std::any_of(devices.begin(), devices.end(), [&](const CommonDevice* each) {
    const auto device = recordIn<CommonDevice>(each);
    return device.status == kDeviceConnected && device.vmId == about.desktopId;
  });
  proxy.FreeDeviceList(devices);
  return found;
}

/// The public interface does not tell the state of a session; the control interface of a
/// development service does.
Finding checkSession(Case& about) {
  const std::string remedy =
      "connect the desktop with its client, or " + shellCommand("desktop connect", {about.desktop});
  if (isInUse(about)) return good("the session is open: devices are connected to it");
  if (!controlIsThere()) {
    return open(
        "cannot be known without connecting a device: the result 3 would say that no "
        "session is open");
  }
  const Json state = askControl("state", {});
  for (const Json& desktop : state.at("desktops")) {
    if (desktop.value("name", "") != about.desktop) continue;
    if (desktop.value("connected", false)) return good("the session is open");
  }
  return broken("the session is not open: its client has not connected it", remedy);
}

Finding checkDevice(Case& about) try {
  const auto records = about.run.deviceRecords();
  about.device = recordIn<CommonDevice>(records.front());
  about.run.proxy().FreeDeviceList(records);
  about.details = DetailsOf(about.device);
  const Json document = deviceDocument(about.device, DesktopNames());
  const Json& type = document["typeWord"];
  return good(about.deviceName() + ", '" + textIn(about.device.name) + "', " +
              (type.is_string() ? type.get<std::string>() : "of type " + type.dump()) + ' ' +
              document["vidPid"].get<std::string>() + ", source id " +
              std::to_string(about.details.sourceId));
} catch (const CommandError& error) {
  if (error.code() != ExitCode::NotFound) throw;
  const auto usb = findUsbDevice(about.root, about.run.arguments.text("DEVICE"));
  if (usb && about.isLocal()) {
    return broken(
        "the service does not know '" + usb->product + "', which is plugged in at " + usb->port,
        "plug it in again, and look at the service's log");
  }
  return broken(error.what(), "plug it in, or give a device that perixctl device list shows");
}

/// The name of the desktop that has the device.
std::string holderOf(const Case& about) {
  for (const auto& [name, id] : about.desktops) {
    if (static_cast<uint32_t>(id) == about.device.vmId) return name;
  }
  return "desktop " + std::to_string(about.device.vmId);
}

Finding checkState(Case& about) {
  switch (static_cast<DeviceStatus>(about.device.status)) {
    case DeviceStatus::Idle:
      return good("idle: no desktop has it");
    case DeviceStatus::Waiting:
      return good("no desktop has it");
    case DeviceStatus::Ignored:
      return broken("it is ignored until it is plugged again, by a decision of the user",
                    "plug it again, or " + about.command("device connect"));
    case DeviceStatus::Connected:
      break;
  }
  if (about.device.status != kDeviceConnected) {
    return open("in the state " + std::to_string(about.device.status) + ", which is not known");
  }
  const std::string holder = holderOf(about);
  if (holder == about.desktop) return good("connected to " + holder + ": it is redirected");
  return broken(
      "connected to another desktop, " + holder,
      shellCommand("device disconnect", {holder, std::to_string(about.device.devNumber)}));
}

Finding checkDecision(Case& about) {
  if (static_cast<DeviceStatus>(about.device.status) != DeviceStatus::Waiting) {
    return good("no decision of the user is pending");
  }
  return broken("it is new, and waits for the decision of the user",
                "decide: " + about.command("device configure"));
}

/// The policy of the vendor and product in the service's list; empty when the list lacks them.
std::string listedPolicy(Case& about) {
  PerixProxy& proxy = about.run.proxy();
  const auto policies = proxy.GetPolicyListByVidPid();
  const std::string whyNot = refusal();
  if (!whyNot.empty()) return "; its vendor and product: not known: " + whyNot;
  std::string text;
  for (const CommonVidPidPolicy* each : policies) {
    const auto policy = recordIn<CommonVidPidPolicy>(each);
    if (policy.vid != about.details.vid || policy.pid != about.details.pid) continue;
    const char* word = TextOf(static_cast<DevicePolicy>(policy.policy));
    text = "; its vendor and product: " +
           (word != nullptr ? std::string(word) : std::to_string(policy.policy));
  }
  proxy.FreePolicyList(policies);
  return text;
}

Finding checkPolicy(Case& about) {
  const char* word = TextOf(static_cast<DevicePolicy>(about.device.localPolicy));
  const std::string text = "the policy of " + about.deviceName() + ": " +
                           (word != nullptr ? word : std::to_string(about.device.localPolicy)) +
                           listedPolicy(about);
  if (static_cast<DevicePolicy>(about.device.localPolicy) != DevicePolicy::Forbid) {
    return good(text);
  }
  return broken(text, "perixctl policy set " + std::to_string(about.device.devNumber) + " allow");
}

Finding checkAutomatic(Case& about) {
  const int isOn = about.run.proxy().GetAutoConnect(about.details.type);
  const std::string whyNot = refusal();
  if (!whyNot.empty()) return open("not known: " + whyNot);
  if (isOn != 0) return good("devices of its type connect by themselves");
  if (about.device.status == kDeviceConnected)
    return open("devices of its type are connected by hand");
  return open("devices of its type are connected by hand: " + about.command("device connect"));
}

/// The USB device is not on this machine, which stands in the way unless the devices are those of a
/// development service.
Finding notPluggedIn(const Case& about, const std::string& id) {
  if (about.root.empty() && controlIsThere()) {
    return open("no USB device " + id +
                " is plugged in here; a development service has devices "
                "of its own");
  }
  return broken("no USB device " + id + " is plugged in here",
                "plug it in; lsusb -d " + id + " shows it then");
}

Finding checkUsb(Case& about) {
  const DeviceDetails& details = about.details;
  if (details.vid == 0) return open("the service tells no USB vendor and product");
  if (!about.isLocal() && about.root.empty())
    return open("the devices are those of another machine");
  const std::string id = deviceDocument(about.device, DesktopNames())["vidPid"];
  if (!showsUsbDevices(about.root)) {
    return open("this machine shows no USB devices (" + about.root + "/sys/bus/usb/devices)");
  }
  const auto device = findUsbDevice(about.root, details.vid, details.pid);
  if (!device) return notPluggedIn(about, id);
  const std::string place = id + " is plugged in at " + device->port + ", ";
  if (device->error == 0) return good(place + "and its node can be opened");
  if (device->error == EACCES && about.bus.owner->user == 0U)
    return good(place + "and the service runs as root");
  return broken(place + "but its node cannot be opened: " + device->node + ": " +
                    std::strerror(device->error),
                "give this user access to the node: TAG+=\"uaccess\" in a rule of udev, or the "
                "node's group");
}

Finding checkDiagnosis(Case& about) {
  const auto steps = diagnose(about.run, about.desktop, &about.details.sourceId);
  return good("the service's own diagnosis: " + steps.back().text);
}

Finding checkLog(Case& about) {
  std::string directory;
  if (!GetAppDataPath(directory)) return open("there is no log");
  const Refusals found = refusalsOf(directory, about.device.devNumber, about.details.sourceId);
  if (found.count == 0) return open("no refusal of the device in " + directory);
  return open(counted(found.count, "refusal") + " in " + directory + ", the last in " + found.last);
}

}  // namespace

std::vector<Link> deviceLinks() {
  return {{"desktop", {"answer"}, checkDesktop},
          {"session", {"desktop"}, checkSession},
          {"device", {"answer"}, checkDevice},
          {"state", {"device"}, checkState},
          {"decision", {"device"}, checkDecision},
          {"policy", {"device"}, checkPolicy},
          {"automatic", {"device"}, checkAutomatic},
          {"usb", {"device"}, checkUsb},
          {"diagnosis", {"desktop", "device"}, checkDiagnosis},
          {"log", {"device"}, checkLog}};
}

}  // namespace zq::ctl
