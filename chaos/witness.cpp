#include "chaos/witness.h"

#include "chaos/outcome.h"
#include "perix/perix_proxy.h"

namespace zq::chaos {
namespace {

constexpr uint16_t kProduct = 0x7777;

}  // namespace

std::string Witness::testify(bool mayFail) {
  const std::string own = "of witness " + std::to_string(number_) + ", round ";
  const std::string text = own + std::to_string(++round_);
  PerixProxy& proxy = *PerixProxy::getInstance();
  const int set = usesTurbo_ ? proxy.SetTurboConfigWithVidPid(number_, kProduct, text)
                             : proxy.SetJoystickMapping(number_, kProduct, text);
  const PerixFailure setFailure = PerixLastFailure().failure;
  const std::string got = usesTurbo_ ? proxy.GetTurboConfigWithVidPid(number_, kProduct)
                                     : proxy.GetJoystickMappingList(number_, kProduct);
  const PerixFailureReport report = PerixLastFailure();
  const bool isSet = set == 0 && setFailure == PerixFailure::None;
  if (isSet && got == text) return {};
  if (!got.empty() && !got.starts_with(own)) return "witness: got the text '" + got + "'";
  const bool failed = setFailure != PerixFailure::None || report.failure != PerixFailure::None;
  if (mayFail && failed) return {};
  return "witness: got '" + got + "' for '" + text + "': " + report.text;
}

}  // namespace zq::chaos
