#include "tools/perixctl/service_command.h"

#include "tools/perixctl/command_error.h"
#include "tools/perixctl/mailbox.h"

namespace zq::ctl {
namespace {

constexpr std::chrono::seconds kResponseTimeout{3};

using Responses = Mailbox<CmdResponse>;

int takeResponse(uint16_t /*code*/, CmdResponse* response, void* userdata) {
  if (response != nullptr) static_cast<Responses*>(userdata)->put(*response);
  return 0;
}

}  // namespace

CmdResponse askCommand(Run& run, const std::string& command) {
  // A response may be on its way when the callback ends, so its mailbox is never destroyed.
  static auto& responses = *new Responses;
  PerixProxy& proxy = run.proxy();
  proxy.RegisterCmdCallback(takeResponse, &responses);
  requireDone(proxy.DoPerixCmd(command));
  const std::optional<CmdResponse> response = responses.take(kResponseTimeout);
  if (!response) throw CommandError(ExitCode::TimedOut, "the command was not answered");
  return *response;
}

}  // namespace zq::ctl
