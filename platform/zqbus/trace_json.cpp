#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <utility>

#include "memory_of.h"
#include "platform/text/escape.h"
#include "platform/text/hex.h"
#include "platform/text/utf8.h"
#include "zqbus/trace.h"

namespace zq {
namespace {

using Json = nlohmann::ordered_json;
using Kind = ZQBusTraceEntry::Kind;

constexpr char kEndOfTrace[] = R"({"kind":"end",)";
constexpr std::size_t kShownBytes = 4096;
constexpr std::size_t kShownText = 65536;
// What the cut arguments of a call, and of a whole file, may make of themselves: a file of any
// origin names their sizes.
constexpr std::size_t kMostBytes = std::size_t{64} << 20;
constexpr std::size_t kMostBytesOfFile = std::size_t{1} << 30;
// The system's clock counts nanoseconds in 64 bits; that is the year 2261.
constexpr std::time_t kLastSecond = 9'200'000'000;

template <typename Value, std::size_t size>
using Words = std::array<std::pair<Value, const char*>, size>;

constexpr Words<Kind, 5> kKinds{{{Kind::Call, "call"},
                                 {Kind::Event, "event"},
                                 {Kind::Broadcast, "broadcast"},
                                 {Kind::Connection, "connection"},
                                 {Kind::Death, "death"}}};
constexpr Words<ZQBusWay, 3> kWays{{{ZQBusWay::Broker, TextOf(ZQBusWay::Broker)},
                                    {ZQBusWay::Direct, TextOf(ZQBusWay::Direct)},
                                    {ZQBusWay::InProcess, TextOf(ZQBusWay::InProcess)}}};
constexpr Words<ZQBusFailure, 7> kFailures{{{ZQBusFailure::Service, "service"},
                                            {ZQBusFailure::TimedOut, "timedOut"},
                                            {ZQBusFailure::PeerGone, "peerGone"},
                                            {ZQBusFailure::BusGone, "busGone"},
                                            {ZQBusFailure::TooLarge, "tooLarge"},
                                            {ZQBusFailure::Unusable, "unusable"},
                                            {ZQBusFailure::Unreadable, "unreadable"}}};

template <typename Value, std::size_t size>
const char* wordOf(const Words<Value, size>& words, Value value) {
  for (const auto& [known, word] : words) {
    if (known == value) return word;
  }
  return "?";
}

template <typename Value, std::size_t size>
Value valueOf(const Words<Value, size>& words, const std::string& word) {
  for (const auto& [value, known] : words) {
    if (known == word) return value;
  }
  throw std::invalid_argument("unknown word \"" + word + '"');
}

// --- Writing -------------------------------------------------------------------------------------

Json cut(const char* key, std::string shown, std::size_t size, std::size_t most) {
  Json argument{{key, std::move(shown)}};
  if (size > most) argument["size"] = size;
  return argument;
}

struct ToJson {
  Json operator()(std::monostate) const { return nullptr; }
  Json operator()(uint16_t value) const { return {{"q", value}}; }
  Json operator()(int32_t value) const { return {{"i", value}}; }
  Json operator()(int64_t value) const { return {{"x", value}}; }
  Json operator()(const std::string& text) const {
    if (text.size() <= kShownText && isUtf8(text)) return {{"s", text}};
    return cut("sHex", inHex(text.substr(0, kShownBytes)), text.size(), kShownBytes);
  }
  Json operator()(const ZQBusBytes& bytes) const {
    return cut("ay", inHex(bytes.view().substr(0, kShownBytes)), bytes.size, kShownBytes);
  }
};

Json argumentsOf(const ZQBusMessage& message) {
  Json arguments = Json::array();
  for (std::size_t i = 0; i < message.argCount(); ++i) {
    const ZQBusArgument& argument = message.arguments()[i];
    arguments.push_back(message.isSecret(i) ? Json{{"secret", contentSize(argument)}}
                                            : std::visit(ToJson(), argument));
  }
  return arguments;
}

std::string utcText(std::chrono::system_clock::time_point time) {
  using namespace std::chrono;
  const auto second = floor<seconds>(time);
  const std::time_t inC = system_clock::to_time_t(second);
  std::tm utc{};
  ::gmtime_r(&inC, &utc);
  std::array<char, 64> text{};
  const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &utc);
  std::array<char, 16> fraction{};
  std::snprintf(fraction.data(), fraction.size(), ".%06dZ",
                static_cast<int>(duration_cast<microseconds>(time - second).count() % 1000000));
  return std::string(text.data(), length) + fraction.data();
}

// --- Reading -------------------------------------------------------------------------------------

template <typename Number>
Number numberIn(const Json& value) {
  if (!value.is_number_integer()) throw std::invalid_argument("a number is expected");
  const auto wide = value.get<int64_t>();
  const bool isBeyond =
      value.is_number_unsigned() && !std::in_range<int64_t>(value.get<uint64_t>());
  if (isBeyond || !std::in_range<Number>(wide))
    throw std::invalid_argument("a number is out of range");
  return static_cast<Number>(wide);
}

/// The bytes of an argument, filled with zeros up to the size that it had.
std::string wholeBytes(const Json& argument, const char* key) {
  const auto shown = fromHex(argument.at(key).get_ref<const std::string&>());
  if (!shown) throw std::invalid_argument("a block is not hexadecimal");
  std::string bytes(shown->begin(), shown->end());
  const auto size = argument.find("size");
  if (size == argument.end()) return bytes;
  const auto whole = numberIn<uint64_t>(*size);
  if (whole > kMostBytes) throw std::invalid_argument("an argument is too large");
  bytes.resize(std::max<std::size_t>(whole, bytes.size()));
  return bytes;
}

std::chrono::nanoseconds nanosecondsIn(const Json& value) {
  const auto count = numberIn<int64_t>(value);
  if (count < 0) throw std::invalid_argument("a time is negative");
  return std::chrono::nanoseconds(count);
}

void appendArgument(ZQBusMessage& message, const Json& argument) {
  if (argument.is_null()) return message.append(std::monostate());
  if (!argument.is_object() || argument.empty())
    throw std::invalid_argument("an argument is an object");
  const std::string type = argument.begin().key();
  const Json& value = argument.begin().value();
  if (type == "q") return message.appendUInt16(numberIn<uint16_t>(value));
  if (type == "i") return message.appendInt32(numberIn<int32_t>(value));
  if (type == "x") return message.appendInt64(numberIn<int64_t>(value));
  if (type == "s") return message.appendString(value.get<std::string>());
  if (type == "sHex") return message.appendString(wholeBytes(argument, "sHex"));
  if (type == "ay") {
    const std::string bytes = wholeBytes(argument, "ay");
    return message.appendBytes(bytes.data(), static_cast<uint32_t>(bytes.size()));
  }
  if (type != "secret") throw std::invalid_argument("unknown type \"" + type + '"');
  message.appendString({});
  message.markSecret();
}

std::size_t contentSize(const ZQBusMessage& message) {
  std::size_t size = 0;
  for (const ZQBusArgument& argument : message.arguments()) size += contentSize(argument);
  return size;
}

void appendArguments(ZQBusMessage& message, const Json& arguments) {
  if (!arguments.is_array()) throw std::invalid_argument("arguments are a list");
  std::size_t size = 0;
  for (const Json& argument : arguments) {
    appendArgument(message, argument);
    size += contentSize(message.arguments().back());
    if (size > kMostBytes) throw std::invalid_argument("the arguments are too large");
  }
}

std::chrono::system_clock::time_point timeOf(const std::string& text) {
  std::tm utc{};
  int micros = 0;
  int length = 0;
  const int read =
      std::sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d.%6dZ%n", &utc.tm_year, &utc.tm_mon,
                  &utc.tm_mday, &utc.tm_hour, &utc.tm_min, &utc.tm_sec, &micros, &length);
  if (read != 7 || static_cast<std::size_t>(length) != text.size())
    throw std::invalid_argument("\"time\" is not a time");
  utc.tm_year -= 1900;
  utc.tm_mon -= 1;
  const std::time_t second = ::timegm(&utc);
  if (second < 0 || second > kLastSecond) throw std::invalid_argument("\"time\" is out of range");
  return std::chrono::system_clock::from_time_t(second) + std::chrono::microseconds(micros);
}

ZQBusMessage replyIn(const Json& document) {
  if (const auto failure = document.find("failure"); failure != document.end()) {
    return ZQBusMessage::failed(valueOf(kFailures, failure->get<std::string>()),
                                document.value("text", ""));
  }
  ZQBusMessage reply;
  appendArguments(reply, document.value("reply", Json::array()));
  return reply;
}

ZQBusTraceEntry entryOf(const Json& document) {
  ZQBusTraceEntry entry;
  entry.kind = valueOf(kKinds, document.at("kind").get<std::string>());
  entry.wall = timeOf(document.at("time").get<std::string>());
  entry.monotonic = nanosecondsIn(document.at("ns"));
  entry.process = numberIn<int>(document.at("process"));
  entry.program = document.value("program", "");
  entry.isSent = document.value("direction", "") == "out";
  if (document.contains("way")) entry.way = valueOf(kWays, document.at("way").get<std::string>());
  if (document.contains("connection")) entry.connection = numberIn<int>(document.at("connection"));
  entry.service = document.value("service", "");
  entry.peer = document.value("peer", "");
  entry.isAsynchronous = document.value("asynchronous", false);
  if (document.contains("duration")) entry.duration = nanosecondsIn(document.at("duration"));
  entry.content = ZQBusMessage(
      entry.kind == Kind::Call ? ZQBusMessageType::MethodCall : ZQBusMessageType::Event,
      document.value("name", ""));
  if (document.contains("arguments")) appendArguments(entry.content, document.at("arguments"));
  if (entry.kind == Kind::Call) entry.reply = replyIn(document);
  if (entry.kind == Kind::Connection) entry.text = document.value("text", "");
  return entry;
}

/// nlohmann's messages begin with a tag in brackets.
std::string plain(const std::string& message) {
  const auto tag = message.find("] ");
  return message.starts_with('[') && tag != std::string::npos ? message.substr(tag + 2) : message;
}

}  // namespace

std::string toJson(const ZQBusTraceEntry& entry) {
  Json document{{"time", utcText(entry.wall)},        {"ns", entry.monotonic.count()},
                {"process", entry.process},           {"program", entry.program},
                {"kind", wordOf(kKinds, entry.kind)}, {"direction", entry.isSent ? "out" : "in"}};
  if (entry.way) document["way"] = TextOf(*entry.way);
  if (entry.connection != 0) document["connection"] = entry.connection;
  if (!entry.service.empty()) document["service"] = entry.service;
  if (!entry.peer.empty()) document["peer"] = entry.peer;
  if (!entry.content.name().empty()) {
    document["name"] = entry.content.name();
    document["arguments"] = argumentsOf(entry.content);
  }
  std::string text = entry.text;
  if (entry.kind == Kind::Call) {
    if (entry.isAsynchronous) document["asynchronous"] = true;
    document["duration"] = entry.duration.count();
    if (entry.reply.type() == 2) {
      document["reply"] = argumentsOf(entry.reply);
    } else {
      document["failure"] = wordOf(kFailures, entry.reply.failure());
      entry.reply.readString(text, 0);
    }
  }
  if (!text.empty()) document["text"] = text;
  return document.dump(-1, ' ', false, Json::error_handler_t::replace);
}

bool readZQBusTrace(const std::string& file, std::vector<ZQBusTraceEntry>& entries,
                    std::string& error) {
  // Opening a pipe would wait for its writer.
  std::error_code problem;
  const auto type = std::filesystem::status(file, problem).type();
  const bool isOther = type != std::filesystem::file_type::regular && !problem;
  std::ifstream in;
  if (!isOther) in.open(file);
  if (!in.is_open()) {
    error = file + ": " + (isOther ? "not a regular file" : std::strerror(errno));
    return false;
  }
  std::vector<ZQBusTraceEntry> read;
  std::size_t number = 0;
  std::size_t size = 0;
  for (std::string line; std::getline(in, line);) {
    ++number;
    if (line.starts_with(kEndOfTrace)) continue;
    std::string mistake;
    if (fromJson(line, read.emplace_back(), mistake)) {
      size += contentSize(read.back().content) + contentSize(read.back().reply);
      if (size > kMostBytesOfFile) mistake = "the calls are too large";
    }
    if (mistake.empty()) continue;
    error = file + ':' + std::to_string(number) + ": " + mistake;
    return false;
  }
  std::stable_sort(read.begin(), read.end(),
                   [](const auto& a, const auto& b) { return a.monotonic < b.monotonic; });
  entries = std::move(read);
  return true;
}

bool fromJson(std::string_view line, ZQBusTraceEntry& entry, std::string& error) try {
  const Json document = Json::parse(line);
  if (!document.is_object()) throw std::invalid_argument("a trace holds one object a line");
  entry = entryOf(document);
  return true;
} catch (const Json::parse_error& problem) {
  error = "not JSON from byte " + std::to_string(problem.byte) + " on";
  return false;
} catch (const std::exception& problem) {
  error = escaped(plain(problem.what()));
  return false;
}

}  // namespace zq
