// desktop: sessions and the focus.
#include "tools/perixctl/command.h"
#include "tools/perixctl/command_error.h"

namespace zq::ctl {
namespace {

Outcome listDesktops(Run& run) {
  const std::map<std::string, int> desktops = run.proxy().GetVmList();
  requireAnswer();
  Json rows = Json::array();
  for (const auto& [name, id] : desktops) rows.push_back({{"desktop", name}, {"id", id}});
  return tableOf(std::move(rows), {{"desktop", "DESKTOP"}, {"id", "ID"}});
}

int connectDesktop(Run& run) {
  VmInfo info{};
  info.vmId = run.desktop();
  info.systemType = run.arguments.number<int32_t>("--system-type");
  info.shareMode = run.arguments.number<int32_t>("--share-mode");
  info.connectParam = run.arguments.number<uint32_t>("--connect-param");
  return run.proxy().ConnectVm(info);
}

int focusDesktop(Run& run) {
  return run.proxy().OnFocusChanged(run.desktop(), run.arguments.number<uint64_t>("WINDOW"),
                                    run.arguments.isOn("GAINED") ? 1 : 0);
}

Argument sessionValue(const char* name, ArgumentKind kind) {
  return {name, kind, "Passed to the service as it is; 0 by default", Presence::Optional};
}

}  // namespace

std::vector<Command> desktopCommands() {
  return {
      {"desktop list", {}, "List the desktops that the service knows", listDesktops},
      {"desktop connect",
       {desktopArgument(), sessionValue("--system-type", ArgumentKind::Int32),
        sessionValue("--share-mode", ArgumentKind::Int32),
        sessionValue("--connect-param", ArgumentKind::UInt32)},
       "Announce a session of a desktop",
       status(connectDesktop)},
      {"desktop disconnect",
       {desktopArgument()},
       "Announce the end of a session",
       report([](Run& run) { run.proxy().DisconnectVm(run.desktop()); })},
      {"desktop start", {desktopArgument()}, "Start the desktop's manager", report([](Run& run) {
         run.proxy().StartVm(run.desktop());
       })},
      {"desktop focus",
       {desktopArgument(),
        {"WINDOW", ArgumentKind::UInt64, "The window's id"},
        {"GAINED", ArgumentKind::Switch,
         "on when the window gained the focus, off when it lost it"}},
       "Tell that a window of the desktop gained or lost the focus",
       status(focusDesktop)},
  };
}

}  // namespace zq::ctl
