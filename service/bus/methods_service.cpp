#include <iterator>
#include <utility>

#include "service/bus/methods.h"

namespace zq::devservice {

std::vector<Method> serviceMethods(World& world) {
  return {
      {perixMethod("resetService"),
       [&world](const Call&) {
         world.resetSessions();
         return Result::Done;
       }},
      {perixMethod("diagnose"),
       [&world](const Call& call) { return world.activities.diagnose(call.desktop(), 0); }},
      {perixMethod("diagnoseDevice"),
       [&world](const Call& call) {
         return world.activities.diagnose(call.desktop(), static_cast<uint64_t>(call.int64(1)));
       }},
      {perixMethod("doPerixTest"),
       [&world](const Call& call) {
         return Answer::number(world.activities.runTest(call.text(1)));
       }},
      {perixMethod("doPerixCmd"),
       [&world](const Call& call) { return world.activities.runCommand(call.text(1)); }},
      {perixMethod("getPerixCmdHelp"),
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
