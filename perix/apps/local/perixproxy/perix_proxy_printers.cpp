// Printers: lists, connection and network printers, shared printers, local printers and drivers.
#include "bus_call.h"
#include "ipv4_address.h"
#include "list_reply.h"
#include "log_line.h"
#include "no_throw.h"
#include "perix/perix_proxy.h"
#include "platform/text/field.h"
#include "zqbus/zqbus.h"

namespace zq {
namespace {

constexpr int kInvalidAddress = 1;

/// The shared printer whose three texts begin at an argument; their order on the
/// wire differs from their order in the record.
_SharePrinterDevice readSharedPrinter(const PerixCall& call, const ZQBusMessage& reply,
                                      std::size_t index) {
  _SharePrinterDevice device{};
  setField(device.addr, call.string(reply, index));
  setField(device.name, call.string(reply, index + 1));
  setField(device.desc, call.string(reply, index + 2));
  return device;
}

/// The printers that a search found; a count that exceeds the printers that came is reduced to
/// their number.
std::list<_SharePrinterDevice> readSharedPrinters(const PerixCall& call,
                                                  const ZQBusMessage& reply) {
  std::list<_SharePrinterDevice> found;
  int count = call.integer(reply, 1);
  for (std::size_t i = 2; count > 0 && call.has<std::string>(reply, i); i += 3, --count) {
    found.push_back(readSharedPrinter(call, reply, i));
    const _SharePrinterDevice& printer = found.back();
    PERIX_DEBUG_AT(call.site(), "[%d] addr:%s name:%s desc:%s", static_cast<int>(found.size()),
                   printer.addr, printer.name, printer.desc);
  }
  return found;
}

/// The service's text, logged; empty on failure.
std::string loggedAnswer(PerixCall& call) {
  const auto reply = call.reply();
  if (reply == nullptr) return {};
  std::string text = call.string(*reply, 0);
  PERIX_DEBUG_AT(call.site(), "result: %s", text.c_str());
  return text;
}

}  // namespace

// --- Lists ---------------------------------------------------------------------------------------

std::list<PrinterDevice*> PerixProxy::GetPrinterList(std::string vmId) {
  PERIX_DEBUG("vmId: %s", vmId.c_str());
  PerixCall call(*this, "getPrinterList");
  const auto reply = call.desktop(vmId).reply();
  if (reply == nullptr) return {};
  PERIX_DEBUG("vmId: %s, list size: %d", vmId.c_str(), reply->readInt32(0));
  return readRecords<PrinterDevice>(call, *reply);
}

std::list<PrinterDevice*> PerixProxy::GetPrinterStatus(unsigned short devNumber) {
  PerixCall call(*this, "getPrinterStatus");
  PERIX_DEBUG("devNumber:%d", devNumber);
  if (!call.alive()) return {};
  PERIX_DEBUG("devNumber: %d", devNumber);
  const auto reply = call.uint16(devNumber).reply();
  if (reply == nullptr) return {};
  PERIX_DEBUG("devNumber: %d, list size: %d", devNumber, reply->readInt32(0));
  return readRecords<PrinterDevice>(call, *reply);
}

std::list<CommonDevice*> PerixProxy::GetNetworkPrinterList() {
  PerixCall call(*this, "getNetworkPrinterList");
  PERIX_DEBUG("enter");
  const auto reply = call.reply();
  if (reply == nullptr) return {};
  PERIX_DEBUG("list size: %d", reply->readInt32(0));
  return readRecords<CommonDevice>(call, *reply);
}

// --- Connection and network printers -------------------------------------------------------------

int PerixProxy::ConnectPrinter(std::string vmId, unsigned short devNumber) {
  PERIX_DEBUG("vmId:%s, devNumber:%d", vmId.c_str(), devNumber);
  return PerixCall(*this, "connectPrinter").desktop(vmId).printer(devNumber).status();
}

int PerixProxy::DisconnectPrinter(std::string vmId, unsigned short devNumber) {
  PERIX_DEBUG("vmId:%s, devNumber:%d", vmId.c_str(), devNumber);
  return PerixCall(*this, "disconnectPrinter").desktop(vmId).printer(devNumber).status();
}

int PerixProxy::AddNetworkPrinter(const std::string& printerAddr, const std::string& printerName,
                                  const std::string& description) {
  PERIX_DEBUG("printerAddr: %s, printerName: %s", printerAddr.c_str(), printerName.c_str());
  if (printerAddr.empty() || printerName.empty()) {
    PERIX_ERROR("printer name or printer addr is NULL");
    noteNotAsked("addNetworkPrinter", "the printer's name or address is empty");
    return -1;
  }
  PerixCall call(*this, "addNetworkPrinter");
  return call.text(printerAddr).text(printerName).text(description).status();
}

int PerixProxy::AddNetworkPrinter(const char* printerAddr) try {
  return AddNetworkPrinter(std::string(printerAddr), "defaultPrinter", std::string());
} catch (...) {
  return gaveUp("addNetworkPrinter", -1);
}

int PerixProxy::DeleteNetworkPrinter(const std::string& printerName) {
  PERIX_DEBUG("printerName: %s", printerName.c_str());
  return PerixCall(*this, "deleteNetworkPrinter").text(printerName).status();
}

int PerixProxy::RenameNetworkPrinter(std::string oldName, std::string newName) {
  PERIX_DEBUG("oldName: %s, newName: %s", oldName.c_str(), newName.c_str());
  if (oldName.empty() || newName.empty()) {
    PERIX_ERROR("printer oldName or printer newName is NULL");
    noteNotAsked("renameNetworkPrinter", "the printer's old or new name is empty");
    return -1;
  }
  return PerixCall(*this, "renameNetworkPrinter").block(oldName).block(newName).status();
}

// --- Shared printers -----------------------------------------------------------------------------

int PerixProxy::SearchSharePrinterDevice(const std::string& ipaddr,
                                         std::list<_SharePrinterDevice>& devices) try {
  PERIX_DEBUG("enter ipaddr: %s", ipaddr.c_str());
  if (!isIpv4Endpoint(ipaddr)) {
    noteNotAsked("searchSharePrinter", "the address is not an IPv4 address");
    return kInvalidAddress;
  }
  PerixCall call(*this, "searchSharePrinter");
  const auto reply = call.text(ipaddr).within(10000).reply();
  if (reply == nullptr) return -1;
  if (const int result = call.result(*reply); result != 0) return result;
  devices = readSharedPrinters(call, *reply);
  return 0;
} catch (...) {
  return gaveUp("searchSharePrinter", -1);
}

int PerixProxy::StopSearchSharePrinterDevice() {
  PERIX_DEBUG("enter");
  return PerixCall(*this, "stopSearchSharePrinter").status();
}

int PerixProxy::AddSharePrinterDevice(std::list<_SharePrinterDevice>& devices) {
  PERIX_DEBUG("enter");
  PerixCall call(*this, "addSharePrinter");
  if (!call.alive()) return -1;
  PERIX_DEBUG("size: %d", static_cast<int>(devices.size()));
  call.int32(static_cast<int32_t>(devices.size()));
  for (const _SharePrinterDevice& device : devices) {
    call.field(device.addr).field(device.name).field(device.desc);
  }
  return call.status();
}

int PerixProxy::DeleteSharePrinterDevice(_SharePrinterDevice& device) {
  PERIX_DEBUG("enter");
  return PerixCall(*this, "deleteSharePrinter").field(device.addr).field(device.name).status();
}

std::string PerixProxy::SearchAllPrinter() {
  PERIX_DEBUG("enter");
  PerixCall call(*this, "searchAllPrinter");
  return loggedAnswer(call.within(30000));
}

// --- Local printers and drivers ------------------------------------------------------------------

std::string PerixProxy::GetPrinterDriverlList(const std::string& query) {
  PERIX_DEBUG("enter");
  PerixCall call(*this, "getPrinterDriverlList");
  return loggedAnswer(call.text(query).within(30000));
}

int PerixProxy::AddLocalPrinter(const std::string& name, const std::string& address,
                                const std::string& driver) {
  PERIX_DEBUG("enter");
  return PerixCall(*this, "addPrinter").text(name).text(address).text(driver).status();
}

int PerixProxy::AutoAddPrinter(const std::string& name, const std::string& address,
                               const std::string& driver) {
  PERIX_DEBUG("enter");
  PerixCall call(*this, "autoAddPrinter");
  return call.text(name).text(address).text(driver).within(30000).status();
}

int PerixProxy::DeletePrinter(const std::string& name) {
  PERIX_DEBUG("enter");
  return PerixCall(*this, "deletePrinter").text(name).status();
}

int PerixProxy::ChangePrinterDriver(const std::string& name, const std::string& driver) {
  PERIX_DEBUG("enter");
  return PerixCall(*this, "changePrinterDriver").text(name).text(driver).status();
}

int PerixProxy::PrintTestPage(const std::string& name) {
  PERIX_DEBUG("enter");
  return PerixCall(*this, "printTestPage").text(name).within(10000).status();
}

int PerixProxy::ConfigPrinterCommand(const std::string& vmId, unsigned long long sourceId,
                                     unsigned short command) {
  PERIX_DEBUG("enter");
  PerixCall call(*this, "ConfigPrinterCommand");
  if (!call.alive()) return -1;
  const int32_t id = call.desktopId(vmId);
  PERIX_DEBUG("ConfigPrinterCommand vmId:%s, vmid:%d, sourceId:%ld, command:%d", vmId.c_str(), id,
              static_cast<long>(sourceId), command);
  return call.int32(id).sourceId(sourceId).int32(command).within(10000).logReply().status();
}

}  // namespace zq
