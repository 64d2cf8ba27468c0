// A call of the service, from its reading to its answer.
#pragma once

#include <memory>
#include <string>

#include "service_connection.h"

namespace zq {

class ReceivedCall : public ZQBusCall {
 public:
  /// Reads a call, under the lock. Null when it cannot be read, or when the calls in hand take up
  /// too much memory already; it is answered with an error then.
  static std::shared_ptr<ReceivedCall> read(std::shared_ptr<ServiceConnection> connection,
                                            SdBusMessage message);

  ReceivedCall(std::shared_ptr<ServiceConnection> connection, SdBusMessage message);
  ~ReceivedCall() override;
  ReceivedCall(const ReceivedCall&) = delete;
  ReceivedCall& operator=(const ReceivedCall&) = delete;

  /// The handler has returned. Lets go of the message unless it is answered.
  void keepForLater();

  const ZQBusMessage& message() const override { return call_; }
  const std::string& sender() const override { return sender_; }
  void reply(const ZQBusMessage& result) override;
  void fail(const std::string& text) override;
  void failUnknownMethod() override;

 private:
  int decode();
  void failWith(const char* name, const std::string& text);
  void answerError(const char* name, const std::string& text);
  int sendReturn(const ZQBusMessage& result);
  int sendError(const char* name, const std::string& text);
  int sendAnswer(const ZQBusMessage& content, sd_bus_message* answer);

  const std::shared_ptr<ServiceConnection> endpoint_;
  ZQBusMessage call_;
  std::string sender_;
  std::size_t size_ = 0;
  SdBusMessage message_;  // what is answered; null once it is; under the loop's lock
};

}  // namespace zq
