#include "introspection.h"

#include "sd_bus_open.h"

namespace zq {
namespace {

constexpr char kDoctype[] =
    "<!DOCTYPE node PUBLIC \"-//freedesktop//DTD D-BUS Object Introspection 1.0//EN\"\n"
    "\"http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd\">\n";

std::string arguments(const std::vector<ZQBusMethod::Argument>& all, const char* direction) {
  std::string xml;
  for (const auto& argument : all) {
    xml += "   <arg name=\"" + argument.name + "\" type=\"" + argument.signature + '"' + direction +
           "/>\n";
  }
  return xml;
}

std::string method(const ZQBusMethod& described) {
  return "  <method name=\"" + described.name + "\">\n" +
         arguments(described.in, " direction=\"in\"") +
         arguments(described.out, " direction=\"out\"") + "  </method>\n";
}

std::string interface(const std::string& name, const std::string& members) {
  return " <interface name=\"" + name + "\">\n" + members + " </interface>\n";
}

}  // namespace

std::string introspectionXml(const std::string& name, const ZQBusServiceDescription& description) {
  std::string members;
  for (const ZQBusMethod& described : description.methods) members += method(described);
  for (const ZQBusMethod& event : description.events) {
    members +=
        "  <signal name=\"" + event.name + "\">\n" + arguments(event.in, "") + "  </signal>\n";
  }
  return std::string(kDoctype) + "<node>\n" +
         interface(kIntrospectableInterface, method({kIntrospect, {}, {{"xml", "s"}}})) +
         interface(kDirectInterface,
                   method({kDirectOpen, {{"handover", "h"}}, {{"process", "i"}}}) +
                       method({kDirectListen, {}, {}})) +
         interface(name, members) + "</node>\n";
}

}  // namespace zq
