#include "tools/perixctl/why/chain.h"

#include <algorithm>

#include "platform/text/escape.h"
#include "platform/text/table.h"

namespace zq::ctl {
namespace {

struct StateForm {
  const char* word;  ///< in documents
  const char* sign;
  const char* asciiSign;
};

StateForm formOf(LinkState state) {
  switch (state) {
    case LinkState::Good:
      return {"good", "✓", "ok"};
    case LinkState::Broken:
      return {"broken", "✗", "NO"};
    case LinkState::Open:
      break;
  }
  return {"open", "–", "-"};
}

struct CheckedLink {
  const char* name;
  Finding finding;
};
using CheckedLinks = std::vector<CheckedLink>;

/// The first link of `needs` that does not hold, or null.
const char* missing(const std::array<const char*, 2>& needs, const CheckedLinks& checked) {
  for (const char* need : needs) {
    const bool holds =
        need == nullptr || std::any_of(checked.begin(), checked.end(), [&](const auto& link) {
          return link.name == std::string_view(need) && link.finding.state == LinkState::Good;
        });
    if (!holds) return need;
  }
  return nullptr;
}

Finding check(const Link& link, Case& about, const CheckedLinks& checked) try {
  if (const char* need = missing(link.needs, checked)) {
    return open(std::string("not checked without the link '") + need + "'");
  }
  return link.check(about);
} catch (const CommandError& error) {
  if (error.code() == ExitCode::NoService) {
    return withoutService(error.what(), "look at the service's log, and start it again");
  }
  return broken(error.what(), error.code() == ExitCode::TimedOut
                                  ? "the service hangs: look at its log, or restart it"
                                  : "look at the service's log");
}

Json documentOf(const CheckedLinks& checked, const CheckedLink* cause) {
  Json links = Json::array();
  for (const auto& [name, finding] : checked) {
    Json link = {{"link", name}, {"state", formOf(finding.state).word}, {"text", finding.text}};
    if (!finding.remedy.empty()) link["remedy"] = finding.remedy;
    links.push_back(std::move(link));
  }
  return {{"cause", cause == nullptr ? Json() : Json(cause->name)}, {"links", std::move(links)}};
}

std::string textOf(const CheckedLinks& checked, const CheckedLink* cause, Remedies remedies,
                   bool utf8) {
  TextTable table{.headings = {"", "", ""}, .showHeadings = false};
  for (const CheckedLink& link : checked) {
    const StateForm form = formOf(link.finding.state);
    table.rows.push_back(
        {{utf8 ? form.sign : form.asciiSign, link.name, escaped(link.finding.text)}});
    const bool isTold = remedies == Remedies::OfAll || &link == cause;
    if (!isTold || link.finding.remedy.empty()) continue;
    table.rows.push_back({{"", "", (utf8 ? "→ " : "-> ") + escaped(link.finding.remedy)}});
  }
  return table.render() + (cause == nullptr ? "nothing stands in the way\n" : "");
}

}  // namespace

Finding good(const std::string& text) {
  return {LinkState::Good, text, ""};
}

Finding broken(const std::string& text, const std::string& remedy) {
  return {LinkState::Broken, text, remedy};
}

Finding withoutService(const std::string& text, const std::string& remedy) {
  return {LinkState::Broken, text, remedy, ExitCode::NoService};
}

Finding open(const std::string& text) {
  return {LinkState::Open, text, ""};
}

Outcome walk(std::span<const Link> links, Case& about, Remedies remedies, bool utf8) {
  CheckedLinks checked;
  for (const Link& link : links) checked.push_back({link.name, check(link, about, checked)});
  const auto found = std::find_if(checked.begin(), checked.end(), [](const CheckedLink& link) {
    return link.finding.state == LinkState::Broken;
  });
  const CheckedLink* cause = found == checked.end() ? nullptr : &*found;
  Outcome outcome;
  outcome.document = documentOf(checked, cause);
  outcome.text = textOf(checked, cause, remedies, utf8);
  if (cause != nullptr) outcome.exitCode = static_cast<int>(cause->finding.exitCode);
  return outcome;
}

}  // namespace zq::ctl
