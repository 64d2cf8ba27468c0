// What the service's methods answer with.
#pragma once

#include <cstdint>

namespace zq::devservice {

/// The result codes. Numbers are what clients see; docs/devservice.md lists them.
enum class Result : int32_t {
  Done = 0,
  UnknownDesktop = 1,
  UnknownDevice = 2,
  DesktopNotConnected = 3,
  AlreadyConnected = 4,
  ConnectedElsewhere = 5,
  NotConnectedHere = 6,
  Forbidden = 7,
  InvalidArgument = 8,
  AlreadyExists = 9,
  NotWaiting = 10,
  NotADisk = 11,
  UnknownPrinter = 12,
  UnknownDriver = 13,
  UnknownPipe = 14,
  HostNotFound = 15,
  Stopped = 16,
  NothingToStop = 17,
  UnknownTest = 18,
  UnknownCommand = 19,
  WrongDeviceType = 20,
  NotMounted = 21,
  NoFreeNumber = 22,
  Busy = 23,
  NoPrintServer = 24,
  PrintServerRefused = 25,
};

/// The code in a few words, as configuration results and errors carry it. A literal.
const char* inWords(Result result);

}  // namespace zq::devservice
