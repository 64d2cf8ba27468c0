// The fields of the model's records: their keys in scenarios and in the state, and the values that
// fit.
//
// There is one table per record, and a form that goes over it: TableReader reads TOML, TableWriter
// writes it, JsonWriter writes JSON. A `field` stands in all of them, a `shown` field in the state
// alone.
#pragma once

#include <cstdint>
#include <optional>
#include <type_traits>

#include "service/model/model.h"

namespace zq::devservice {

/// The values that fit a field of a scenario.
struct Rule {
  std::optional<int64_t> least;  ///< of a number; else the least of its type
  std::optional<int64_t> most;   ///< of a number, or of the bytes of a text
  bool required = false;         ///< it must be there; a text must not be empty
  const char* unique = nullptr;  ///< no other field of this name space has the same value
  bool hex = false;              ///< of a number: written so
};

inline constexpr Rule kRequired{.required = true};
inline constexpr Rule kNumber{.least = 1};
inline constexpr Rule kMilliseconds{.least = 0, .most = 3'600'000};
inline constexpr Rule kName{.most = kDeviceDetailLimit, .required = true};

/// Form::Of adds the form's constness to a record.
template <typename Form, typename Record>
using In = typename std::remove_reference_t<Form>::template Of<Record>;

void fields(auto& form, In<decltype(form), Pipe>& pipe) {
  form.shown("param1", pipe.param1);
  form.shown("param2", pipe.param2);
  form.shown("label1", pipe.label1);
  form.shown("label2", pipe.label2);
}

void fields(auto& form, In<decltype(form), Desktop>& desktop) {
  form.field("id", desktop.id,
             {.least = 1, .most = INT32_MAX, .required = true, .unique = "desktop.id"});
  form.field("name", desktop.name,
             {.most = kDesktopNameLimit, .required = true, .unique = "desktop.name"});
  form.field("connected", desktop.connected);
  form.shown("started", desktop.started);
  form.shown("focused", desktop.focused);
  form.shown("windowId", desktop.windowId);
  form.field("systemType", desktop.systemType);
  form.field("shareMode", desktop.shareMode);
  form.shown("connectParam", desktop.connectParam);
  form.shown("pipes", desktop.pipes);
  form.shown("ports", desktop.ports);
  form.shown("bandwidth", desktop.bandwidth);
  form.shown("quality", desktop.quality);
  form.shown("usbRedirections", desktop.usbRedirections);
}

void fields(auto& form, In<decltype(form), VidPid>& id, Rule rule = {}) {
  rule.hex = true;
  form.field("vid", id.vid, rule);
  form.field("pid", id.pid, rule);
}

void fields(auto& form, In<decltype(form), Device>& device) {
  form.field("devNumber", device.number, kNumber);
  form.field("sourceId", device.sourceId, kNumber);
  form.field("type", device.type);
  fields(form, device.id);
  form.field("name", device.name, {.most = kDeviceNameLimit, .required = true});
  form.field("detail", device.detail, {.most = kDeviceDetailLimit});
  form.shown("status", device.status);
  form.shown("desktop", device.desktop);
  form.field("policy", device.policy);
  form.field("mounted", device.mounted);
  form.shown("network", device.network);
}

void fields(auto& form, In<decltype(form), Printer>& printer) {
  const bool local = printer.origin == PrinterOrigin::Local;
  const bool network = printer.origin == PrinterOrigin::Network;
  form.field("number", printer.number, {.least = 1, .unique = "printer.number"});
  form.shown("origin", printer.origin);
  // A shared printer is known by name and address.
  form.field("name", printer.name,
             {.most = kPrinterNameLimit,
              .required = true,
              .unique = local     ? "printer.name"
                        : network ? "networkPrinter.name"
                                  : nullptr});
  form.field("address", printer.address, {.most = kDeviceDetailLimit, .required = network});
  if (local) {
    form.field("driver", printer.driver);
  } else {
    form.shown("driver", printer.driver);
  }
  form.field("description", printer.description);
  form.shown("status", printer.status);
  form.shown("desktop", printer.desktop);
  form.shown("document", printer.document);
}

void fields(auto& form, In<decltype(form), Driver>& driver) {
  form.field("name", driver.name,
             {.most = kDeviceDetailLimit, .required = true, .unique = "driver.name"});
  form.field("maker", driver.maker);
}

/// The texts may be longer than the fields of a client's record; clients cut them.
void fields(auto& form, In<decltype(form), SharedPrinter>& printer) {
  form.field("name", printer.name, kName);
  form.field("description", printer.description);
}

void fields(auto& form, In<decltype(form), SharedHost>& host) {
  form.field("address", host.address,
             {.most = kSharedTextLimit, .required = true, .unique = "host.address"});
  form.field("searchMs", host.searchMs, kMilliseconds);
  form.field("reachable", host.reachable);
  form.field("printers", host.printers);
}

void fields(auto& form, In<decltype(form), VidPidPolicy>& policy) {
  form.field("policy", policy.policy, kRequired);
  form.field("name", policy.name, {.most = kDeviceNameLimit});
}

void fields(auto& form, In<decltype(form), PerixCommand>& command) {
  form.field("name", command.name,
             {.most = kDeviceDetailLimit, .required = true, .unique = "command.name"});
  form.field("help", command.help);
  form.field("answer", command.answer, {.most = kCommandAnswerLimit});
  form.field("result", command.result);
}

void fields(auto& form, In<decltype(form), SelfTest>& test) {
  form.field("name", test.name,
             {.most = kDeviceDetailLimit, .required = true, .unique = "test.name"});
  form.field("result", test.result);
}

void fields(auto& form, In<decltype(form), Timing>& timing) {
  form.field("configurationMs", timing.configuration, kMilliseconds);
  form.field("diagnosisStepMs", timing.diagnosisStep, kMilliseconds);
  form.field("calibrationMs", timing.calibration, kMilliseconds);
  form.field("printJobMs", timing.printJob, kMilliseconds);
  form.field("printerSetupMs", timing.printerSetup, kMilliseconds);
  form.field("summaryMs", timing.summary, kMilliseconds);
  form.field("unknownHostMs", timing.unknownHost, kMilliseconds);
}

}  // namespace zq::devservice
