#include "service/cups/cups_server.h"

#include <cups/cups.h>

#include <algorithm>
#include <array>
#include <iostream>
#include <iterator>
#include <memory>
#include <string_view>
#include <thread>
#include <utility>

#include "service/model/test_page.h"

namespace zq::devservice {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int kConnectMs = 5'000;
constexpr double kBetweenChecksSeconds = 0.2;
constexpr std::chrono::seconds kSilence{20};
constexpr milliseconds kBetweenLooks{50};
constexpr char kRaw[] = "raw";
constexpr char kRawModel[] =
    "Local Raw Printer";  // the server's name for the model of every raw printer

struct Release {
  void operator()(http_t* connection) const { httpClose(connection); }
  void operator()(ipp_t* message) const { ippDelete(message); }
};
using Message = std::unique_ptr<ipp_t, Release>;

struct StatusRow {
  ipp_status_t status;
  Result result;
};
constexpr std::array kResults = {
    StatusRow{IPP_STATUS_ERROR_NOT_FOUND, Result::UnknownPrinter},
    StatusRow{IPP_STATUS_ERROR_BAD_REQUEST, Result::InvalidArgument},
    StatusRow{IPP_STATUS_ERROR_ATTRIBUTES_OR_VALUES, Result::InvalidArgument},
    StatusRow{IPP_STATUS_ERROR_URI_SCHEME, Result::InvalidArgument},
    StatusRow{IPP_STATUS_ERROR_NOT_POSSIBLE, Result::InvalidArgument},
    StatusRow{IPP_STATUS_ERROR_SERVICE_UNAVAILABLE, Result::NoPrintServer},
};

/// The result of the last request of this thread.
Result lastResult() {
  const ipp_status_t status = cupsLastError();
  if (status < IPP_STATUS_REDIRECTION_OTHER_SITE) return Result::Done;
  for (const StatusRow& row : kResults) {
    if (row.status == status) return row.result;
  }
  std::cerr << "perix-devservice: CUPS: " << cupsLastErrorString() << '\n';
  return Result::PrintServerRefused;
}

void addText(ipp_t* request, ipp_tag_t group, ipp_tag_t type, const char* name,
             const std::string& value) {
  ippAddString(request, group, type, name, nullptr, value.c_str());
}

Message requestTo(ipp_op_t operation) {
  Message request(ippNewRequest(operation));
  addText(request.get(), IPP_TAG_OPERATION, IPP_TAG_NAME, "requesting-user-name", cupsUser());
  return request;
}

Message requestAbout(ipp_op_t operation, const std::string& printer) {
  std::array<char, HTTP_MAX_URI> uri{};
  httpAssembleURIf(HTTP_URI_CODING_ALL, uri.data(), uri.size(), "ipp", nullptr, "localhost", 0,
                   "/printers/%s", printer.c_str());
  Message request = requestTo(operation);
  addText(request.get(), IPP_TAG_OPERATION, IPP_TAG_URI, "printer-uri", uri.data());
  return request;
}

std::string textOf(ipp_attribute_t* attribute) {
  const char* text = ippGetString(attribute, 0, nullptr);
  return text == nullptr ? std::string() : text;
}

PrinterStatus statusOf(ipp_attribute_t* attribute) {
  switch (ippGetInteger(attribute, 0)) {
    case IPP_PSTATE_PROCESSING:
      return PrinterStatus::Printing;
    case IPP_PSTATE_STOPPED:
      return PrinterStatus::Paused;
    default:
      return PrinterStatus::Idle;
  }
}

/// Goes through the attributes of the groups `tag`, each of which describes one thing.
template <typename Thing, typename TakeOver>
std::vector<Thing> thingsIn(ipp_t* response, ipp_tag_t tag, const TakeOver& takeOver) {
  std::vector<Thing> things;
  bool inside = false;
  for (auto* at = ippFirstAttribute(response); at != nullptr; at = ippNextAttribute(response)) {
    const bool belongs = ippGetGroupTag(at) == tag;
    if (belongs && !inside) things.emplace_back();
    inside = belongs;
    if (belongs) takeOver(things.back(), std::string_view(ippGetName(at)), at);
  }
  return things;
}

void takeOver(Printer& printer, std::string_view name, ipp_attribute_t* attribute) {
  if (name == "printer-name") printer.name = textOf(attribute);
  if (name == "device-uri") printer.address = textOf(attribute);
  if (name == "printer-make-and-model") printer.driver = textOf(attribute);
  if (name == "printer-info") printer.description = textOf(attribute);
  if (name == "printer-state") printer.status = statusOf(attribute);
}

void takeOver(Driver& driver, std::string_view name, ipp_attribute_t* attribute) {
  if (name == "ppd-name") driver.name = textOf(attribute);
  if (name == "ppd-make-and-model") driver.maker = textOf(attribute);
}

constexpr auto kTakeOver = [](auto& thing, std::string_view name, ipp_attribute_t* attribute) {
  takeOver(thing, name, attribute);
};

const char* noPassword(const char*, http_t*, const char*, const char*, void*) {
  return nullptr;
}

}  // namespace

/// One connection and its requests.
class CupsServer::Connection {
 public:
  explicit Connection(const CupsServer& server) : server_(server) {
    // These settings of the library hold for the calling thread alone.
    if (!server.address_.empty()) cupsSetServer(server.address_.c_str());
    cupsSetPasswordCB2(noPassword, nullptr);
    http_.reset(httpConnect2(cupsServer(), ippPort(), nullptr, AF_UNSPEC, cupsEncryption(), 1,
                             kConnectMs, nullptr));
    if (http_) httpSetTimeout(http_.get(), kBetweenChecksSeconds, isWorthWaiting, this);
  }

  /// Sends a request. `answer` is null when the server did not answer.
  Result ask(Message request, const char* resource, Message* answer = nullptr) {
    if (!http_) return Result::NoPrintServer;
    beginWaiting();
    Message response(cupsDoRequest(http_.get(), request.release(), resource));
    const Result result = lastResult();
    if (answer != nullptr) *answer = std::move(response);
    return result;
  }

  Result describe(const std::string& printer, Printer& found) {
    Message answer;
    const Result result = ask(requestAbout(IPP_OP_GET_PRINTER_ATTRIBUTES, printer), "/", &answer);
    if (result != Result::Done) return result;
    const auto printers = thingsIn<Printer>(answer.get(), IPP_TAG_PRINTER, kTakeOver);
    if (printers.empty()) return Result::UnknownPrinter;
    found = printers.front();
    return Result::Done;
  }

  Result checkDriver(const std::string& driver) {
    if (driver == kEverywhere || driver == kRaw) return Result::Done;
    if (driver.empty()) return Result::UnknownDriver;
    Message request = requestTo(IPP_OP_CUPS_GET_PPD);
    addText(request.get(), IPP_TAG_OPERATION, IPP_TAG_NAME, "ppd-name", driver);
    const Result result = ask(std::move(request), "/");
    return result == Result::UnknownPrinter ? Result::UnknownDriver : result;
  }

  /// Whether the server could ask a new printer for its abilities before the deadline: until then
  /// the printer counts as raw.
  Result awaitDescription(const std::string& printer, Clock::time_point deadline) {
    while (Clock::now() < deadline && !server_.givenUp_) {
      Printer now;
      const Result result = describe(printer, now);
      if (result == Result::UnknownPrinter) return Result::HostNotFound;
      if (result != Result::Done || now.driver != kRawModel) return result;
      std::this_thread::sleep_for(kBetweenLooks);
    }
    return Result::HostNotFound;
  }

  Result sendPage(const std::string& printer) {
    beginWaiting();
    const int job = cupsCreateJob(http_.get(), printer.c_str(), "Test page", 0, nullptr);
    if (job == 0) return lastResult();
    const std::string page = testPage(printer);
    cupsStartDocument(http_.get(), printer.c_str(), job, "Test page", "application/pdf", 1);
    cupsWriteRequestData(http_.get(), page.data(), page.size());
    cupsFinishDocument(http_.get(), printer.c_str());
    return lastResult();
  }

 private:
  void beginWaiting() { deadline_ = Clock::now() + kSilence; }

  static int isWorthWaiting(http_t*, void* connection) {
    const auto& self = *static_cast<const Connection*>(connection);
    return !self.server_.givenUp_ && Clock::now() < self.deadline_ ? 1 : 0;
  }

  const CupsServer& server_;
  Clock::time_point deadline_;
  std::unique_ptr<http_t, Release> http_;
};

std::string CupsServer::nameOf(const std::string& address) {
  return address.empty() ? cupsServer() : address;
}

Result CupsServer::printers(std::vector<Printer>& found) const {
  constexpr std::array kWanted = {"printer-name", "device-uri", "printer-make-and-model",
                                  "printer-info", "printer-state"};
  Message request = requestTo(IPP_OP_CUPS_GET_PRINTERS);
  ippAddInteger(request.get(), IPP_TAG_OPERATION, IPP_TAG_ENUM, "printer-type", 0);
  ippAddInteger(request.get(), IPP_TAG_OPERATION, IPP_TAG_ENUM, "printer-type-mask",
                CUPS_PRINTER_CLASS);
  ippAddStrings(request.get(), IPP_TAG_OPERATION, IPP_TAG_KEYWORD, "requested-attributes",
                kWanted.size(), nullptr, kWanted.data());
  Message answer;
  const Result result = Connection(*this).ask(std::move(request), "/", &answer);
  // A server without any printer answers that it found none.
  if (result != Result::Done && result != Result::UnknownPrinter) return result;
  found = thingsIn<Printer>(answer.get(), IPP_TAG_PRINTER, kTakeOver);
  return Result::Done;
}

Result CupsServer::drivers(std::vector<Driver>& found) const {
  Message answer;
  const Result result = Connection(*this).ask(requestTo(IPP_OP_CUPS_GET_PPDS), "/", &answer);
  if (result != Result::Done && result != Result::UnknownPrinter) return result;
  auto named = thingsIn<Driver>(answer.get(), IPP_TAG_PRINTER, kTakeOver);
  found = {{kEverywhere, "IPP Everywhere"}};
  std::copy_if(named.begin(), named.end(), std::back_inserter(found),
               [](const Driver& driver) { return driver.name != kEverywhere; });
  return Result::Done;
}

Result CupsServer::add(const std::string& name, const std::string& uri, const std::string& driver,
                       milliseconds patience) const {
  const auto deadline = Clock::now() + patience;
  Connection connection(*this);
  Printer known;
  const Result missing = connection.describe(name, known);
  if (missing == Result::Done) return Result::AlreadyExists;
  if (missing != Result::UnknownPrinter) return missing;
  const Result driverKnown = connection.checkDriver(driver);
  if (driverKnown != Result::Done) return driverKnown;
  Message request = requestAbout(IPP_OP_CUPS_ADD_MODIFY_PRINTER, name);
  addText(request.get(), IPP_TAG_PRINTER, IPP_TAG_URI, "device-uri", uri);
  addText(request.get(), IPP_TAG_PRINTER, IPP_TAG_NAME, "ppd-name", driver);
  ippAddInteger(request.get(), IPP_TAG_PRINTER, IPP_TAG_ENUM, "printer-state", IPP_PSTATE_IDLE);
  ippAddBoolean(request.get(), IPP_TAG_PRINTER, "printer-is-accepting-jobs", 1);
  const Result result = connection.ask(std::move(request), "/admin/");
  if (result != Result::Done || driver != kEverywhere) return result;
  const Result described = connection.awaitDescription(name, deadline);
  if (described != Result::Done) (void)remove(name);
  return described;
}

Result CupsServer::remove(const std::string& name) const {
  return Connection(*this).ask(requestAbout(IPP_OP_CUPS_DELETE_PRINTER, name), "/admin/");
}

Result CupsServer::setDriver(const std::string& name, const std::string& driver) const {
  Connection connection(*this);
  Printer known;
  // The server would add a printer that it does not know.
  const Result present = connection.describe(name, known);
  if (present != Result::Done) return present;
  const Result driverKnown = connection.checkDriver(driver);
  if (driverKnown != Result::Done) return driverKnown;
  Message request = requestAbout(IPP_OP_CUPS_ADD_MODIFY_PRINTER, name);
  addText(request.get(), IPP_TAG_PRINTER, IPP_TAG_NAME, "ppd-name", driver);
  return connection.ask(std::move(request), "/admin/");
}

Result CupsServer::setPaused(const std::string& name, bool paused) const {
  const auto operation = paused ? IPP_OP_PAUSE_PRINTER : IPP_OP_RESUME_PRINTER;
  return Connection(*this).ask(requestAbout(operation, name), "/admin/");
}

Result CupsServer::printTestPage(const std::string& name) const {
  Connection connection(*this);
  Printer known;
  const Result present = connection.describe(name, known);
  return present == Result::Done ? connection.sendPage(name) : present;
}

}  // namespace zq::devservice
