#include "service/cups/cups.h"

namespace zq::devservice {

bool useCups(const std::string&, DevService::Options&, std::string& error) {
  error = "--cups: this program was built without CUPS (libcups2-dev)";
  return false;
}

}  // namespace zq::devservice
