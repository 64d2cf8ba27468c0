// pipe, port, token and quality: the stream of a desktop.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <list>

#include "platform/text/field.h"
#include "tools/perixctl/command.h"
#include "tools/perixctl/command_error.h"

namespace zq::ctl {
namespace {

constexpr std::size_t kLongestToken = std::size_t{64} << 10;
constexpr std::size_t kLongestLineEnd = 2;  // "\r\n"

std::list<_CHANNEL_HANDLE> pipeHandles(Run& run) {
  std::list<_CHANNEL_HANDLE> handles;
  const std::string desktop = run.desktop();
  for (const std::string& text : run.arguments.texts("PIPE")) {
    const PipeDescription pipe = parsePipe(text).value_or(PipeDescription{});
    _CHANNEL_HANDLE& handle = handles.emplace_back();
    handle.vmId = desktop;
    handle.param1 = pipe.param1;
    handle.param2 = pipe.param2;
    setField(handle.label1, pipe.label1);
    setField(handle.label2, pipe.label2);
  }
  return handles;
}

[[noreturn]] void throwUnreadable(const std::string& source) {
  throw CommandError(ExitCode::Usage, "cannot read " + source + ": " + std::strerror(errno));
}

void requireTokenLength(std::size_t length, std::size_t most) {
  if (length <= most) return;
  throw CommandError(ExitCode::Usage,
                     "the token has more than " + std::to_string(kLongestToken) + " bytes");
}

std::string readBounded(int descriptor, const std::string& source) {
  std::string content;
  ssize_t got;
  do {
    char chunk[4096];
    got = read(descriptor, chunk, sizeof(chunk));
    if (got > 0) content.append(chunk, static_cast<std::size_t>(got));
    requireTokenLength(content.size(), kLongestToken + kLongestLineEnd);
  } while (got > 0 || (got < 0 && errno == EINTR));
  if (got < 0) throwUnreadable(source);
  return content;
}

std::string readFile(const std::string& path) {
  const OwnedDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) throwUnreadable(path);
  return readBounded(file.get(), path);
}

std::string askForToken(Run& run) {
  run.indicator.end();
  run.earlyEnd.before(restoreEcho);
  std::string token = readHidden("Token: ");
  run.earlyEnd.forgetLatest();
  return token;
}

// From standard input or a file, never from the command line, which every process can read. The
// end of a line is not the token's.
std::string readToken(Run& run) {
  const std::string path = run.arguments.text("--file");
  std::string token = !path.empty()               ? readFile(path)
                      : isatty(STDIN_FILENO) == 1 ? askForToken(run)
                                                  : readBounded(STDIN_FILENO, "standard input");
  if (token.ends_with('\n')) token.pop_back();
  if (token.ends_with('\r')) token.pop_back();
  if (token.empty()) throw CommandError(ExitCode::Usage, "the token is empty");
  requireTokenLength(token.size(), kLongestToken);
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
       {{"--file", ArgumentKind::File, "Read the token from this file", Presence::Optional}},
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
