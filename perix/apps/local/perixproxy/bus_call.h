// One operation's call of the service: the sequence that all of them share.
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "log_line.h"
#include "perix/perix_proxy.h"
#include "record_text.h"
#include "zqbus/zqbus.h"

namespace zq {

/// Made at the start of an operation, it reconnects when needed, takes the call lock and holds it
/// until it goes; so the operation's results are read under the lock too. Without a service nothing
/// is appended or sent, and the outcome is the failure value.
class PerixCall {
 public:
  enum class Locking { Serialised, None };

  PerixCall(PerixProxy& proxy, const char* method, Locking locking = Locking::Serialised,
            LogSite site = here());

  /// Whether there is a service; logs an error when there is none.
  bool alive();

  PerixCall& desktop(const std::string& vmId);  ///< the desktop's integer id
  PerixCall& noDesktop() { return int32(0); }   ///< what stands there when none is concerned
  PerixCall& uint16(uint16_t value);
  PerixCall& int32(int32_t value);
  PerixCall& int64(int64_t value);
  PerixCall& text(const std::string& value);
  /// A record's text, as a string.
  template <std::size_t size>
  PerixCall& field(const char (&value)[size]) {
    return text(fieldText(value));
  }
  PerixCall& block(const std::string& value);  ///< a text's characters, as a byte block
  PerixCall& block(const void* data, std::size_t size);
  PerixCall& sourceId(unsigned long long id);  ///< as a block of its eight bytes

  PerixCall& within(int milliseconds);               ///< a time-out other than 3000 ms
  PerixCall& logReply(const char* label = "reply");  ///< have the whole reply logged
  /// The operation's own words for "no service" and, before the reply's error text, "refused".
  PerixCall& words(const char* unavailable, const char* refused);

  /// Calls and waits; the reply, or null after logging why there is none.
  std::shared_ptr<ZQBusMessage> reply();
  /// Calls and waits; the service's result, or `failure`.
  int status(int failure = -1);
  /// Calls and waits; the service's text, empty on failure.
  std::string answer();
  /// Sends without waiting; 0, or -1 without a service.
  int send();

 private:
  void logRefusal(const ZQBusMessage& reply);

  PerixProxy& proxy_;
  const char* const method_;
  const LogSite site_;
  std::unique_lock<std::mutex> lock_;
  std::shared_ptr<ZQBusProxyInterface> service_;
  std::shared_ptr<ZQBusMessage> message_;  // null without a service
  int timeoutMs_ = 3000;
  const char* replyLabel_ = nullptr;
  const char* unavailable_ = "wait perixserviced restart when it death";
  const char* refused_ = nullptr;
};

}  // namespace zq
