// JSON documents, as the control interface and the service's texts have them.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace zq::devservice {

/// Keys stay in the order in which they were written.
using Json = nlohmann::ordered_json;

/// The text of a document. Bytes that are not UTF-8 are replaced.
std::string asText(const Json& document);

}  // namespace zq::devservice
