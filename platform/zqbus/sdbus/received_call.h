// A call that the service received, until it is answered.
#pragma once

#include <memory>
#include <string>

#include "service_connection.h"

namespace zq {

class ReceivedCall : public ZQBusCall {
 public:
  /// Decodes a call, under the mutex of its connection's loop. Null when it cannot be decoded, or
  /// when the calls in hand take too much memory already; it is answered with an error then.
  static std::shared_ptr<ReceivedCall> read(const std::shared_ptr<ServiceConnection>& connection,
                                            SdBusMessage message);

  ReceivedCall(std::shared_ptr<ServiceConnection> connection, SdBusMessage message);
  ~ReceivedCall() override;
  ReceivedCall(const ReceivedCall&) = delete;
  ReceivedCall& operator=(const ReceivedCall&) = delete;

  /// The handler has returned. Releases the content of an unanswered call.
  void keepForLater();

  const ZQBusMessage& message() const override { return call_; }
  const std::string& sender() const override { return sender_; }
  ZQBusWay way() const override {
    return connection_->peer().empty() ? ZQBusWay::Broker : ZQBusWay::Direct;
  }
  void reply(const ZQBusMessage& result) override;
  void fail(const std::string& text) override;
  void failUnknownMethod() override;
  void breakConnection(std::string_view bytes) override;

 private:
  int decode() REQUIRES(connection_->loop().mutex());
  void failWith(const char* name, const std::string& text) EXCLUDES(connection_->loop().mutex());
  void answerError(const char* name, const std::string& text) REQUIRES(connection_->loop().mutex());
  int sendReturn(const ZQBusMessage& result) REQUIRES(connection_->loop().mutex());
  int sendError(const char* name, const std::string& text) REQUIRES(connection_->loop().mutex());
  int sendAnswer(const ZQBusMessage& content, sd_bus_message* answer)
      REQUIRES(connection_->loop().mutex());

  const std::shared_ptr<ServiceConnection> connection_;
  ZQBusMessage call_;
  std::string sender_;
  std::size_t size_ = 0;
  // The message to answer; null once it is answered.
  SdBusMessage message_ GUARDED_BY(connection_->loop().mutex());
};

}  // namespace zq
