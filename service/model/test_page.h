// The test page.
#pragma once

#include <string>

namespace zq::devservice {

/// A PDF document of one page that names the printer.
std::string testPage(const std::string& printer);

}  // namespace zq::devservice
