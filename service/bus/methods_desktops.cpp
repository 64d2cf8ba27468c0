#include <cstring>
#include <optional>
#include <string>
#include <utility>

#include "service/bus/methods.h"

namespace zq::devservice {
namespace {

constexpr uint32_t kPipeBlockSize = 268;
constexpr std::size_t kLabelSize = 128;

Answer listDesktops(const World& world) {
  ZQBusMessage reply;
  reply.appendInt32(static_cast<int32_t>(world.desktops.all().size()));
  for (const Desktop& desktop : world.desktops.all()) {
    reply.appendString(desktop.name);
    reply.appendInt32(static_cast<int32_t>(desktop.id));
  }
  return Answer::of(std::move(reply));
}

uint32_t numberAt(std::string_view block, std::size_t offset) {
  uint32_t number = 0;
  std::memcpy(&number, block.data() + offset, sizeof number);
  return number;
}

std::string labelAt(std::string_view block, std::size_t offset) {
  const std::string_view field = block.substr(offset, kLabelSize);
  return std::string(field.substr(0, field.find('\0')));
}

/// The pipes of a call; none when a block has another length than a pipe's.
std::optional<std::vector<PipeOf>> readPipes(const Call& call) {
  std::vector<PipeOf> pipes;
  for (std::size_t i = 2; i < call.message.arguments().size(); ++i) {
    const std::string block = call.text(i);
    if (block.size() != kPipeBlockSize) return std::nullopt;
    pipes.push_back({numberAt(block, 0),
                     {numberAt(block, 4), numberAt(block, 8), labelAt(block, 12),
                      labelAt(block, 12 + kLabelSize)}});
  }
  return pipes;
}

Answer changePipes(World& world, const Call& call,
                   Result (Desktops::*change)(const std::vector<PipeOf>&)) {
  const auto pipes = readPipes(call);
  if (world.desktops.find(call.desktop()) == nullptr) return Result::UnknownDesktop;
  if (!pipes || static_cast<int64_t>(pipes->size()) != call.int32(1)) {
    return Result::InvalidArgument;
  }
  return (world.desktops.*change)(*pipes);
}

Answer setQuality(World& world, const Call& call) {
  std::optional<int64_t> value;
  if (call.message.argCount() > 2) value = call.int64(2);
  return world.desktops.setQuality(call.desktop(), call.int64(1), value);
}

Answer setToken(World& world, const Call& call) {
  const std::size_t length = call.text(0).size();
  if (length == 0) return Result::InvalidArgument;
  world.tokenLength = length;
  return Result::Done;
}

}  // namespace

std::vector<Method> desktopMethods(World& world) {
  return {
      {perixMethod("connectVm"),
       [&world](const Call& call) {
         return world.connectDesktop(call.desktop(), call.int32(1), call.int32(2),
                                     static_cast<uint32_t>(call.int32(3)));
       }},
      {perixMethod("disconnectVm"),
       [&world](const Call& call) { return world.disconnectDesktop(call.desktop()); }},
      {perixMethod("startManager"),
       [&world](const Call& call) { return world.desktops.start(call.desktop()); }},
      {perixMethod("getVmList"), [&world](const Call&) { return listDesktops(world); }},
      {perixMethod("getVmListSize"),
       [&world](const Call& call) {
         return Answer::number(static_cast<int32_t>(world.desktops.idOf(call.text(0))));
       }},
      {perixMethod("onFocusChanged"),
       [&world](const Call& call) {
         return world.desktops.focus(call.desktop(), call.int32(1) != 0, call.int64(2));
       }},
      {perixMethod("createPipe"),
       [&world](const Call& call) { return changePipes(world, call, &Desktops::createPipes); }},
      {perixMethod("destroyPipe"),
       [&world](const Call& call) { return changePipes(world, call, &Desktops::destroyPipes); }},
      {perixMethod("setPortChannelStatus"),
       [&world](const Call& call) {
         return world.desktops.setPort(call.desktop(), static_cast<uint32_t>(call.int32(1)),
                                       call.int32(2));
       }},
      {perixMethod("updateDriveToken"),
       [&world](const Call& call) { return setToken(world, call); }},
      {perixMethod("setBwInfo"),
       [&world](const Call& call) {
         return world.desktops.setBandwidth(call.desktop(), {call.int64(1), call.int64(2)});
       }},
      {perixMethod("setRtcQosInfo"),
       [&world](const Call& call) { return setQuality(world, call); }},
  };
}

}  // namespace zq::devservice
