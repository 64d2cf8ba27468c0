#include <iterator>
#include <utility>

#include "service/bus/methods.h"

namespace zq::devservice {

std::vector<Method> serviceMethods(World& world) {
  return {
      {"resetService", "", "result:i",
       [&world](const Call&) {
         world.resetSessions();
         return Result::Done;
       }},
      {"diagnose", "desktop:i", "result:i",
       [&world](const Call& call) { return world.activities.diagnose(call.desktop(), 0); }},
      {"diagnoseDevice", "desktop:i sourceId:x", "result:i",
       [&world](const Call& call) {
         return world.activities.diagnose(call.desktop(), static_cast<uint64_t>(call.int64(1)));
       }},
      {"doPerixTest", "zero:i name:s", "result:i",
       [&world](const Call& call) {
         return Answer::number(world.activities.runTest(call.text(1)));
       }},
      {"doPerixCmd", "zero:i command:s", "result:i",
       [&world](const Call& call) { return world.activities.runCommand(call.text(1)); }},
      {"getPerixCmdHelp", "zero:i", "help:s",
       [&world](const Call&) { return Answer::text(world.activities.commandHelp()); }},
  };
}

std::vector<Method> perixMethods(World& world) {
  std::vector<Method> all;
  for (const auto family :
       {desktopMethods, deviceMethods, settingMethods, printerMethods, serviceMethods}) {
    std::vector<Method> methods = family(world);
    std::move(methods.begin(), methods.end(), std::back_inserter(all));
  }
  return all;
}

}  // namespace zq::devservice
