// Where the bus library tells its trace what passed.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "zqbus/trace.h"
#include "zqbus/zqbus.h"
#include "zqbus/zqbus_service.h"

namespace zq {

/// Whether anybody wants the trace of this process. Starts the trace that ZQBUS_TRACE asks for,
/// once. Takes no lock otherwise.
bool isTracing();
/// An entry that begins now, of this process.
ZQBusTraceEntry beginTraceEntry(ZQBusTraceEntry::Kind kind, const std::string& service);
/// A message of that type and name with the arguments of `content`, none of them secret.
ZQBusMessage withArgumentsOf(const ZQBusMessage& content, ZQBusMessageType type, std::string name);
/// Hands the entry to the file and to the sink. What they throw is logged.
void trace(ZQBusTraceEntry entry) noexcept;

/// The same interface, traced when somebody wants that.
std::shared_ptr<ZQBusProxyInterface> traced(std::shared_ptr<ZQBusProxyInterface> interface,
                                            const std::string& service);
/// A broadcast listener that traces and then calls `listener`, which it owns.
ZQBusEventCallback* tracedBroadcast(const std::string& event, ZQBusEventCallback* listener);
/// A service's handler, traced when somebody wants that.
ZQBusService::Handler traced(ZQBusService::Handler handler, const std::string& service,
                             const ZQBusServiceDescription& description);
/// A service whose events are traced when somebody wants that. `made` may be null.
std::unique_ptr<ZQBusService> traced(std::unique_ptr<ZQBusService> made,
                                     const std::string& service);
/// Tells the outcome of connecting to the bus, empty `service`, or to a service. `problem` is empty
/// when there is a connection.
void traceConnection(const std::string& service, const std::string& owner,
                     std::optional<ZQBusWay> way, const std::string& problem);

}  // namespace zq
