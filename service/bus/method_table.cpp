#include "service/bus/method_table.h"

#include <array>
#include <cstring>
#include <sstream>
#include <utility>

namespace zq::devservice {
namespace {

/// Of "name:signature", with or without a mark in front.
ZQBusMethod::Argument parseArgument(std::string word) {
  word.erase(0, word.find_first_not_of("?*"));
  const std::size_t colon = word.find(':');
  return {word.substr(0, colon), word.substr(colon + 1)};
}

std::vector<ZQBusMethod::Argument> parseArguments(const std::string& text) {
  std::vector<ZQBusMethod::Argument> arguments;
  std::istringstream words(text);
  for (std::string word; words >> word;) arguments.push_back(parseArgument(word));
  return arguments;
}

}  // namespace

Answer::Answer(Result result) {
  arguments_.appendInt32(static_cast<int32_t>(result));
}

Answer Answer::number(int32_t value) {
  ZQBusMessage arguments;
  arguments.appendInt32(value);
  return of(std::move(arguments));
}

Answer Answer::text(std::string text) {
  ZQBusMessage arguments;
  arguments.appendString(std::move(text));
  return of(std::move(arguments));
}

Answer Answer::records(const std::vector<ZQBusBytes>& records) {
  ZQBusMessage arguments;
  arguments.reserve(records.size() + 1);
  arguments.appendInt32(static_cast<int32_t>(records.size()));
  for (const ZQBusBytes& record : records) arguments.append(record);
  return of(std::move(arguments));
}

Answer Answer::of(ZQBusMessage arguments) {
  Answer answer(Kind::Arguments);
  answer.arguments_ = std::move(arguments);
  return answer;
}

Answer Answer::error(std::string text) {
  Answer answer(Kind::Error);
  answer.text_ = std::move(text);
  return answer;
}

void Answer::sendTo(ZQBusCall& call) const {
  if (isError()) {
    call.fail(text_);
  } else {
    call.reply(arguments_);
  }
}

Answer Answer::later() {
  return Answer(Kind::Later);
}

std::string Call::text(std::size_t index) const {
  const auto& arguments = message.arguments();
  if (index >= arguments.size()) return {};
  if (const auto* bytes = std::get_if<ZQBusBytes>(&arguments[index])) {
    return std::string(bytes->view());
  }
  std::string text;
  return message.readString(text, index);
}

uint64_t Call::block64(std::size_t index) const {
  uint32_t size = 0;
  const auto block = message.readBytes(index, size);
  uint64_t value = 0;
  std::memcpy(&value, block.get(), std::min<std::size_t>(size, sizeof value));
  return value;
}

const char* signatureOf(const ZQBusArgument& argument) {
  constexpr std::array kSignatures = {"another type", "q", "i", "x", "s", "ay"};
  static_assert(std::variant_size_v<ZQBusArgument> == kSignatures.size());
  return kSignatures.at(argument.index());
}

ZQBusMethod describe(const ServiceMethod& form) {
  return {form.name, parseArguments(form.in), parseArguments(form.out), form.secret};
}

MethodTable::MethodTable(std::vector<Method> methods) {
  for (Method& method : methods) {
    Row row = parse(std::move(method));
    std::string name = row.method.form.name;
    rows_.emplace(std::move(name), std::move(row));
  }
}

MethodTable::Row MethodTable::parse(Method method) {
  const std::string in = method.form.in;
  const std::size_t mark = in.find_first_of("?*");
  Row row{std::move(method), parseArguments(in).size(), parseArguments(in.substr(0, mark)).size()};
  if (mark != std::string::npos && in[mark] == '*') row.repeating = row.most - row.required;
  return row;
}

const Method* MethodTable::find(const std::string& name) const {
  const auto found = rows_.find(name);
  return found == rows_.end() ? nullptr : &found->second.method;
}

std::string MethodTable::names() const {
  std::string names;
  for (const auto& [name, row] : rows_) names += (names.empty() ? "" : ", ") + name;
  return names;
}

void MethodTable::handle(const ZQBusMessage& call, const Respond& respond) const {
  const Row& row = rows_.at(call.name());
  std::string wrong = mismatch(row, call);
  if (!wrong.empty()) return respond(Answer::error(std::move(wrong)));
  const Answer answer = row.method.handle({call, respond});
  if (!answer.isLater()) respond(answer);
}

std::string MethodTable::mismatch(const Row& row, const ZQBusMessage& call) {
  const ServiceMethod& form = row.method.form;
  const auto& given = call.arguments();
  const std::size_t group = row.repeating;
  const bool tooFew = given.size() < row.required;
  const bool tooMany = group == 0 && given.size() > row.most;
  const bool splitGroup = group != 0 && !tooFew && (given.size() - row.required) % group != 0;
  if (tooFew || tooMany || splitGroup) {
    return std::string(form.name) + " takes (" + form.in + "), not " +
           std::to_string(given.size()) + " arguments";
  }
  for (std::size_t i = 0; i < given.size(); ++i) {
    const auto [name, signature] = parseArgument(std::string(ArgumentOf(form.in, i)));
    if (signature == signatureOf(given[i])) continue;
    return std::string(form.name) + ": argument " + std::to_string(i) + ", " + name + ", is " +
           signature + ", not " + signatureOf(given[i]);
  }
  return {};
}

std::vector<ZQBusMethod> MethodTable::description() const {
  std::vector<ZQBusMethod> methods;
  for (const auto& [name, row] : rows_) methods.push_back(describe(row.method.form));
  return methods;
}

}  // namespace zq::devservice
