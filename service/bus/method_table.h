// The methods of a bus service, as one table that serves for dispatch, for checking arguments and
// for introspection.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "perix/service_methods.h"
#include "service/model/model.h"
#include "zqbus/message.h"
#include "zqbus/zqbus_service.h"

namespace zq::devservice {

/// The answer of a method: arguments, an error, or nothing yet.
class Answer {
 public:
  /// A result code, or a number, as int32.
  Answer(Result result);  // NOLINT(google-explicit-constructor): methods return their result
  static Answer number(int32_t value);
  static Answer text(std::string text);
  /// The number of records and each record.
  static Answer records(const std::vector<ZQBusBytes>& records);
  static Answer of(ZQBusMessage arguments);
  static Answer error(std::string text);
  /// The method kept the call's `respond` and answers through it.
  static Answer later();

  bool isLater() const { return kind_ == Kind::Later; }
  bool isError() const { return kind_ == Kind::Error; }
  const ZQBusMessage& arguments() const { return arguments_; }
  const std::string& errorText() const { return text_; }
  void sendTo(ZQBusCall& call) const;

 private:
  enum class Kind { Arguments, Error, Later };

  explicit Answer(Kind kind) : kind_(kind) {}

  Kind kind_ = Kind::Arguments;
  ZQBusMessage arguments_;
  std::string text_;
};

using Respond = std::function<void(const Answer&)>;

/// A call whose arguments fit the row of the method. Readers take the index of the argument.
struct Call {
  const ZQBusMessage& message;
  Respond respond;

  uint32_t desktop() const { return static_cast<uint32_t>(message.readInt32(0)); }
  uint16_t uint16(std::size_t index) const { return message.readUInt16(index); }
  int32_t int32(std::size_t index) const { return message.readInt32(index); }
  int64_t int64(std::size_t index) const { return message.readInt64(index); }
  /// A string, or a block's bytes as a text.
  std::string text(std::size_t index) const;
  /// A 64-bit number that travels as a block of eight bytes; a shorter block is padded with zeros.
  uint64_t block64(std::size_t index) const;
};

struct Method {
  ServiceMethod form;
  std::function<Answer(const Call&)> handle;
};

class MethodTable {
 public:
  explicit MethodTable(std::vector<Method> methods);

  /// Null for an unknown name.
  const Method* find(const std::string& name) const;
  /// All names, separated by commas.
  std::string names() const;
  /// Runs the method that `call` names, which must exist; `respond` takes the answer, now or later.
  /// When the arguments do not fit, the answer is an error that says which arguments fit.
  void handle(const ZQBusMessage& call, const Respond& respond) const;
  std::vector<ZQBusMethod> description() const;

 private:
  struct Row {
    Method method;
    std::size_t most = 0;       ///< arguments, with a repeating group once
    std::size_t required = 0;   ///< arguments at least
    std::size_t repeating = 0;  ///< how many of the last arguments make up the repeating group
  };

  static Row parse(Method method);
  static std::string mismatch(const Row& row, const ZQBusMessage& call);

  std::map<std::string, Row> rows_;
};

/// The method or the event as introspection shows it.
ZQBusMethod describe(const ServiceMethod& form);

/// The D-Bus signature of one argument, as the table writes it.
const char* signatureOf(const ZQBusArgument& argument);

}  // namespace zq::devservice
