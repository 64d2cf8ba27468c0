// Operations called while the process ends: from an atexit handler, from the destructors of static
// objects made before and after the first use, and of an object of the thread.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "perix/perix_proxy.h"
#include "tests/proxy/scripted_bus.h"

namespace {

const std::string& words() {
  static const auto* const text = new std::string(300, 'x');
  return *text;
}

void failAnOperation() {
  const int result = zq::PerixProxy::getInstance()->DoPerixTest("t");
  const zq::PerixFailureReport report = zq::PerixLastFailure();
  if (result == -1 && report.method == "doPerixTest" && report.text == words()) return;
  std::fprintf(stderr, "%d, %s: %s\n", result, report.method.c_str(), report.text.c_str());
  std::_Exit(1);
}

struct AtEnd {
  ~AtEnd() { failAnOperation(); }
};
const AtEnd beforeUse;

}  // namespace

int main() {
  zq::script().answer = [](const zq::ZQBusMessage&) {
    return zq::ZQBusMessage::failed(zq::ZQBusFailure::Service, words());
  };
  thread_local const AtEnd ofTheThread;
  failAnOperation();
  static const AtEnd afterUse;
  return std::atexit(failAnOperation);
}
