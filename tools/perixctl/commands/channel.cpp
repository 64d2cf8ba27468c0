// pipe, port, token and quality: what belongs to a desktop's stream.
#include <fstream>
#include <iostream>
#include <iterator>
#include <list>

#include "tools/perixctl/command.h"
#include "tools/perixctl/command_error.h"

namespace zq::ctl {
namespace {

std::list<_CHANNEL_HANDLE> pipeHandles(Run& run) {
  std::list<_CHANNEL_HANDLE> handles;
  const std::string desktop = run.desktop();
  for (const std::string& text : run.arguments.texts("PIPE")) {
    const PipeDescription pipe = parsePipe(text).value_or(PipeDescription{});
    _CHANNEL_HANDLE& handle = handles.emplace_back();
    handle.vmId = desktop;
    handle.param1 = pipe.param1;
    handle.param2 = pipe.param2;
    pipe.label1.copy(handle.label1, sizeof(handle.label1) - 1);
    pipe.label2.copy(handle.label2, sizeof(handle.label2) - 1);
  }
  return handles;
}

// From standard input or a file, never from the command line, which every process can read.
std::string readToken(Run& run) {
  std::string token;
  const std::string path = run.arguments.text("--file");
  if (path.empty()) {
    token.assign(std::istreambuf_iterator<char>(std::cin), {});
  } else {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw CommandError(ExitCode::Usage, "cannot read " + path);
    token.assign(std::istreambuf_iterator<char>(file), {});
  }
  if (token.ends_with('\n')) token.pop_back();
  if (token.empty()) throw CommandError(ExitCode::Usage, "the token is empty");
  return token;
}

int updateToken(Run& run) {
  const std::string token = readToken(run);
  return run.proxy().UpdateDriveToken(token);
}

void reportBandwidth(Run& run) {
  run.proxy().SetBwInfo(run.desktop(), run.arguments.number<uint64_t>("VALUE1"),
                        run.arguments.number<uint64_t>("VALUE2"));
}

void reportQuality(Run& run) {
  auto value = run.arguments.number<uint32_t>("VALUE");
  run.proxy().SetRtcQosInfo(run.desktop(), run.arguments.number<uint32_t>("TYPE"),
                            run.arguments.has("VALUE") ? &value : nullptr);
}

const Argument kPipes{"PIPE", ArgumentKind::Pipe, "PARAM1:PARAM2:LABEL1:LABEL2, once or more often",
                      Presence::Repeated};

}  // namespace

std::vector<Command> channelCommands() {
  return {
      {"pipe create",
       {desktopArgument(), kPipes},
       "Create pipes of a desktop",
       status([](Run& run) { return run.proxy().CreatePipe(run.desktop(), pipeHandles(run)); })},
      {"pipe destroy",
       {desktopArgument(), kPipes},
       "Destroy pipes of a desktop",
       status([](Run& run) { return run.proxy().DestroyPipe(run.desktop(), pipeHandles(run)); })},
      {"port status",
       {desktopArgument(),
        {"PORT", ArgumentKind::UInt32, "The port's number"},
        {"STATUS", ArgumentKind::Int32, "The state to report"}},
       "Report the state of a numbered port channel",
       status([](Run& run) {
         return run.proxy().SetPortChannelStatus(run.desktop(),
                                                 run.arguments.number<uint32_t>("PORT"),
                                                 run.arguments.number<int32_t>("STATUS"));
       })},
      {"token update",
       {{"--file", ArgumentKind::Name, "Read the token from this file", Presence::Optional}},
       "Hand over the token of the redirected drives, read from standard input",
       status(updateToken)},
      {"quality bandwidth",
       {desktopArgument(),
        {"VALUE1", ArgumentKind::UInt64, "The first figure"},
        {"VALUE2", ArgumentKind::UInt64, "The second figure"}},
       "Report a desktop's bandwidth",
       report(reportBandwidth)},
      {"quality rtc",
       {desktopArgument(),
        {"TYPE", ArgumentKind::UInt32, "The kind of report, the service's number"},
        {"VALUE", ArgumentKind::UInt32, "The value; sent for type 1 only", Presence::Optional}},
       "Report the quality of a desktop's stream",
       report(reportQuality)},
  };
}

}  // namespace zq::ctl
