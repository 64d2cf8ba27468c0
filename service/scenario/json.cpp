#include "service/scenario/json.h"

namespace zq::devservice {

std::string asText(const Json& document) {
  return document.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace zq::devservice
