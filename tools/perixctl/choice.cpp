#include "tools/perixctl/choice.h"

#include <strings.h>

#include <cstdlib>
#include <functional>

#include "tools/perixctl/command_error.h"
#include "tools/perixctl/record_documents.h"
#include "tools/perixctl/suggestion.h"

namespace zq::ctl {
namespace {

using Candidates = std::vector<const Choice*>;

Candidates thoseCalled(const std::vector<Choice>& choices, const std::string& name,
                       int (*compare)(const char*, const char*)) {
  Candidates found;
  for (const Choice& choice : choices) {
    if (compare(choice.name.c_str(), name.c_str()) == 0) found.push_back(&choice);
  }
  return found;
}

std::string textOf(const Candidates& candidates) {
  std::string text;
  for (const Choice* choice : candidates) {
    text += (text.empty() ? "" : ", ") + std::to_string(choice->number);
    if (choice->sourceId != 0) text += " (source " + std::to_string(choice->sourceId) + ")";
  }
  return text;
}

}  // namespace

std::vector<Choice> deviceChoices(PerixProxy& proxy) {
  const std::list<CommonDevice*> devices = proxy.GetLocalDeviceList();
  requireAnswer();
  std::vector<Choice> choices;
  for (const CommonDevice* each : devices) {
    const auto device = recordIn<CommonDevice>(each);
    choices.push_back({device.devNumber, DetailsOf(device).sourceId, textIn(device.name)});
  }
  proxy.FreeDeviceList(devices);
  return choices;
}

std::vector<Choice> printerChoices(PerixProxy& proxy) {
  const std::list<PrinterDevice*> printers = proxy.GetPrinterList("");
  requireAnswer();
  std::vector<Choice> choices;
  for (PrinterDevice* each : printers) {
    const auto printer = recordIn<PrinterDevice>(each);
    choices.push_back({printer.devNum, 0, textIn(printer.name)});
    std::free(each);
  }
  return choices;
}

const Choice& chosen(const std::string& kind, const std::vector<Choice>& choices,
                     const std::string& name) {
  Candidates found = thoseCalled(choices, name, strcmp);
  if (found.empty()) found = thoseCalled(choices, name, strcasecmp);
  if (found.size() == 1) return *found.front();
  if (found.empty()) {
    std::vector<std::string> names;
    for (const Choice& choice : choices) names.push_back(choice.name);
    throw CommandError(ExitCode::NotFound,
                       "no " + kind + " is called '" + name + "'" + didYouMean(name, names));
  }
  throw CommandError(ExitCode::NotFound, std::to_string(found.size()) + " " + kind +
                                             "s are called '" + name + "': give a number out of " +
                                             textOf(found));
}

}  // namespace zq::ctl
