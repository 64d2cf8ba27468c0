// The call of the service that an operation makes: the sequence that all operations share.
#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "last_failure.h"
#include "log_line.h"
#include "perix/perix_proxy.h"
#include "platform/text/field.h"
#include "platform/util/signals.h"
#include "zqbus/zqbus.h"

namespace zq {

/// Made at the start of an operation, it reconnects when needed, locks the call mutex and holds it
/// while it lives; so the operation's results are read under the mutex too. Without a service
/// nothing is appended or sent, and the outcome is the failure value. No function throws: an
/// exception in a step ends the call. PerixLastFailure() tells each outcome.
class PerixCall {
 public:
  /// The order of the first steps.
  enum class Order {
    Usual,            ///< the lock, the message, the desktop's id
    IdBeforeMessage,  ///< the lock, the desktop's id, the message
    IdBeforeLock,     ///< the desktop's id, the lock, the message
    NoLock,           ///< the message, the desktop's id
  };

  PerixCall(PerixProxy& proxy, const char* method, Order order = Order::Usual,
            LogSite site = here());

  /// Whether there is a service; logs an error when there is not.
  bool alive();

  PerixCall& desktop(const std::string& vmId) { return int32(desktopId(vmId)); }
  int32_t desktopId(const std::string& vmId);  ///< for a desktop's id, to be appended
  PerixCall& noDesktop() { return int32(0); }  ///< for a call about no desktop
  PerixCall& uint16(uint16_t value);
  PerixCall& int32(int32_t value);
  PerixCall& int64(int64_t value);
  PerixCall& text(std::string_view value);
  /// A record's text, as a string.
  template <std::size_t size>
  PerixCall& field(const char (&value)[size]) {
    return text(fieldText(value).view());
  }
  PerixCall& block(std::string_view value);  ///< a text's characters, as a byte block
  PerixCall& block(const void* data, std::size_t size);
  PerixCall& secret(std::string_view value);   ///< as block(); traces and logs show its size alone
  PerixCall& sourceId(unsigned long long id);  ///< as a block of its eight bytes
  // The device or the printer that the call is about; the log names it when the call is refused.
  PerixCall& device(uint16_t number) { return about("device", number).uint16(number); }
  PerixCall& printer(uint16_t number) { return about("printer", number).uint16(number); }
  PerixCall& deviceBySource(unsigned long long id) {
    return about("source id", id).int64(static_cast<int64_t>(id));
  }

  PerixCall& within(int milliseconds);               ///< a time-out other than 3000 ms
  PerixCall& logReply(const char* label = "reply");  ///< have the whole reply logged
  /// The operation's own words for "no service" and, before the reply's error text, "refused".
  PerixCall& words(const char* unavailable, const char* refused);

  /// Calls and waits; the reply, or null after logging the reason.
  std::shared_ptr<ZQBusMessage> reply();
  /// Calls and waits; the service's result, or `failure`.
  int status(int failure = -1);
  /// Calls and waits; a number that is not a result, or `failure`.
  int number(int failure);
  /// Calls and waits; the service's text, empty on failure.
  std::string answer();
  /// Sends without waiting; 0, or -1 without a service.
  int send();

  /// Whether argument `index` of a reply is of a type; if not, PerixLastFailure() reports the
  /// answer as unreadable.
  template <typename Type>
  bool has(const ZQBusMessage& reply, std::size_t index) const {
    return hasArgument<Type>(reply, index, method_);
  }
  /// The service's result in a reply. The log has a line, of a tag of its own, for each but 0.
  int result(const ZQBusMessage& reply) const;
  /// An argument of a reply; 0 when it is not an int32.
  int32_t integer(const ZQBusMessage& reply, std::size_t index) const;
  /// A text of a reply; empty when it is not a string.
  std::string string(const ZQBusMessage& reply, std::size_t index) const;

  const char* method() const { return method_; }
  const LogSite& site() const { return site_; }

 private:
  using Clock = std::chrono::steady_clock;

  void lock();
  bool begin();
  void stayWithTheProcessAsked();
  void fail(PerixFailure failure, const char* words);
  void finish();
  void logError(const ZQBusMessage& reply);
  PerixCall& about(const char* kind, unsigned long long number);
  template <typename Step>
  void step(Step step);
  template <typename Append>
  PerixCall& append(Append append);

  const NoCancellation guard_;  // the thread ends behind the operation
  PerixProxy& proxy_;
  const char* const method_;
  const Order order_;
  const LogSite site_;
  const Clock::time_point start_ = Clock::now();
  Clock::duration waiting_{};
  Clock::duration lookUps_{};
  std::unique_lock<std::mutex> lock_;
  std::shared_ptr<ZQBusProxyInterface> service_;  // null without a service, and it stays null then
  std::shared_ptr<ZQBusMessage> message_;
  std::string_view desktop_;  // the operation's argument
  const char* subjectKind_ = nullptr;
  unsigned long long subject_ = 0;
  bool failed_ = false;  // on this side
  std::optional<LastFailure> lookUpFailure_;
  int timeoutMs_ = 3000;
  const char* replyLabel_ = nullptr;
  const char* unavailable_ = "wait perixserviced restart when it death";
  const char* refused_ = nullptr;
};

}  // namespace zq
