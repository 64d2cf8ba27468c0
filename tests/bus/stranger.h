// Another client of the bus, with sd-bus alone.
#pragma once

#include <systemd/sd-bus.h>

#include <string>
#include <vector>

#include "zqbus/message.h"

namespace zq {

class Stranger {
 public:
  Stranger();
  ~Stranger();
  Stranger(const Stranger&) = delete;
  Stranger& operator=(const Stranger&) = delete;

  /// Sends a signal with those arguments to everybody, or to one connection alone.
  void sendSignal(const char* path, const char* interface, const char* member,
                  const ZQBusMessage& arguments, const char* to = nullptr);
  std::string name() const;
  /// Waits until the bus has routed what was sent before.
  void sync();
  /// Calls a method of the service through the bus. False for an error.
  bool call(const char* method);
  /// Asks the service for a direct line; the client's end of it, or negative when it refuses.
  int openLine();
  /// Hands the service that descriptor to send a line's end on. False when it refuses.
  bool openLineOn(int handover);
  /// Sees everything that goes through the bus from now on: "interface.member" each.
  void becomeMonitor();
  /// What was seen up to a signal of that name.
  std::vector<std::string> seenUntil(const std::string& member);

 private:
  sd_bus* bus_ = nullptr;
};

}  // namespace zq
