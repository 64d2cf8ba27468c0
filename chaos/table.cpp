#include "chaos/table.h"

namespace zq::chaos {

void Table::add(const Result& result) {
  for (Count* count : {&counts_[result.setting.name()], &total_}) {
    ++count->run;
    if (!result.complaint.empty()) ++count->failed;
  }
}

std::string Table::asMarkdown() const {
  std::string text = "| Fault | Way |";
  std::string line = "\n|---|---|";
  for (const char* broker : kBrokers) {
    for (const int threads : kThreads) {
      text += " " + (broker + (", " + std::to_string(threads))) +
              (threads == 1 ? " thread |" : " threads |");
      line += "---|";
    }
  }
  text += line;
  std::string row;
  for (const Setting& setting : allSettings()) {
    const std::string head =
        "\n| `" + std::string(setting.fault.kind) + "` | " + setting.way + " |";
    if (head != row) text += row = head;
    const auto found = counts_.find(setting.name());
    const Count count = found == counts_.end() ? Count() : found->second;
    text += " " + std::to_string(count.run) + " run, " + std::to_string(count.failed) + " failed |";
  }
  return text + "\n\n" + std::to_string(total_.run) + " cells run, " +
         std::to_string(total_.failed) + " failed.\n";
}

}  // namespace zq::chaos
