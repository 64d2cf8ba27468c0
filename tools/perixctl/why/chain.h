// Chains of links: the conditions under which a device is redirected, or an installation works.
// Each link is checked in its turn and told in one line.
#pragma once

#include <array>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "tools/perixctl/command_error.h"
#include "tools/perixctl/outcome.h"

namespace zq::ctl {

struct Case;

enum class LinkState {
  Good,    ///< it holds
  Broken,  ///< it does not, and so stands in the way
  Open,    ///< it was not checked, cannot be known, or stands neither in the way nor out of it
};

/// The outcome of a check.
struct Finding {
  LinkState state;
  std::string text;
  std::string remedy;                     ///< of a broken link
  ExitCode exitCode = ExitCode::Refused;  ///< of a broken link: Refused or NoService
};

Finding good(const std::string& text);
Finding broken(const std::string& text, const std::string& remedy);
Finding withoutService(const std::string& text, const std::string& remedy);
Finding open(const std::string& text);

struct Link {
  const char* name;
  /// The links before it without which it is not checked; null for none.
  std::array<const char*, 2> needs;
  /// May throw CommandError: the link is broken then.
  Finding (*check)(Case&);
};

/// The remedies that are told.
enum class Remedies { OfTheFirst, OfAll };

/// Checks each link whose needs hold. The exit code of the outcome is 0, or that of the first
/// broken link. `utf8` is whether signs beyond ASCII may be used.
Outcome walk(std::span<const Link> links, Case& about, Remedies remedies, bool utf8);

}  // namespace zq::ctl
