#include "fuzz/connected_proxy.h"

#include <cstdlib>
#include <filesystem>

#include "zqbus/zqbus_service.h"

namespace zq::fuzz {
namespace {

ZQBusMessage nextReply;

void answer(const std::shared_ptr<ZQBusCall>& call) {
  std::string text;
  if (call->message().name() == "getVmListSize") {
    ZQBusMessage id;
    id.appendInt32(call->message().readString(text, 0) == kDesktop ? kDesktopId : 0);
    call->reply(id);
  } else if (nextReply.type() == 2) {
    call->reply(nextReply);
  } else {
    call->fail(nextReply.readString(text, 0));
  }
}

struct World {
  World() {
    char pattern[] = "/tmp/perix-fuzz-XXXXXX";
    logDirectory = ::mkdtemp(pattern);
    ::setenv("XDG_STATE_HOME", logDirectory.c_str(), 1);
    std::string error;
    service = ZQBusService::claim("perix", {}, answer, error);
  }
  ~World() {
    std::error_code ignored;
    std::filesystem::remove_all(logDirectory, ignored);
  }

  std::filesystem::path logDirectory;
  std::unique_ptr<ZQBusService> service;
};

}  // namespace

PerixProxy& connectedProxy() {
  static const World world;
  static PerixProxy& proxy = *PerixProxy::getInstance();
  return proxy;
}

void setReply(ZQBusMessage reply) {
  nextReply = std::move(reply);
}

}  // namespace zq::fuzz
