#include "hal/HalIntrospection.h"

#include <glib.h>

#include <set>

#include "hal/HalMethods.h"
#include "hal/HalNames.h"
#include "hal/Text.h"

namespace halsim {
namespace {

constexpr const char* kHeader =
    "<!DOCTYPE node PUBLIC \"-//freedesktop//DTD D-BUS Object Introspection 1.0//EN\"\n"
    "  \"http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd\">\n";
constexpr const char* kIntrospectable =
    "  <interface name=\"org.freedesktop.DBus.Introspectable\">\n"
    "    <method name=\"Introspect\">\n"
    "      <arg name=\"data\" type=\"s\" direction=\"out\"/>\n"
    "    </method>\n"
    "  </interface>\n";
constexpr const char* kManagerSignals =
    "    <signal name=\"DeviceAdded\">\n      <arg name=\"udi\" type=\"s\"/>\n    </signal>\n"
    "    <signal name=\"DeviceRemoved\">\n      <arg name=\"udi\" type=\"s\"/>\n    </signal>\n"
    "    <signal name=\"NewCapability\">\n      <arg name=\"udi\" type=\"s\"/>\n"
    "      <arg name=\"capability\" type=\"s\"/>\n    </signal>\n";
constexpr const char* kDeviceSignals =
    "    <signal name=\"PropertyModified\">\n      <arg name=\"count\" type=\"i\"/>\n"
    "      <arg name=\"changes\" type=\"a(sbb)\"/>\n    </signal>\n";

std::string Argument(const std::string& name, const std::string& type, const char* direction) {
  const std::string attribute = name.empty() ? "" : "name=\"" + name + "\" ";
  return "      <arg " + attribute + "type=\"" + type + "\" direction=\"" + direction + "\"/>\n";
}

std::string MethodText(const Method& method) {
  std::string text = "    <method name=\"" + std::string(method.member) + "\">\n";
  const char* type = method.in;
  for (const std::string& name : Split(method.inNames, ' ')) {
    const char* end = nullptr;
    g_variant_type_string_scan(type, nullptr, &end);
    text += Argument(name, std::string(type, end), "in");
    type = end;
  }
  return text + Argument("", method.out, "out") + "    </method>\n";
}

std::string InterfaceText(const std::string& interface) {
  std::string text = "  <interface name=\"" + interface + "\">\n";
  for (const Method& method : Methods()) {
    if (interface == method.interface) text += MethodText(method);
  }
  if (interface == kManagerInterface) text += kManagerSignals;
  if (interface == kDeviceInterface) text += kDeviceSignals;
  return text + "  </interface>\n";
}

/// The next element of each object path below this one.
std::set<std::string> ChildrenOf(const DeviceTree& tree, const std::string& path) {
  const std::string prefix = path == "/" ? path : path + "/";
  std::set<std::string> children;
  const auto collect = [&](const std::string& object) {
    if (!object.starts_with(prefix)) return;
    children.insert(object.substr(prefix.size(), object.find('/', prefix.size()) - prefix.size()));
  };
  collect(kManagerPath);
  for (const Device& device : tree.Devices()) collect(device.udi);
  return children;
}

}  // namespace

std::optional<std::string> Introspect(const DeviceTree& tree, const std::string& path) {
  const std::vector<std::string> interfaces = InterfacesOf(tree, path);
  const std::set<std::string> children = ChildrenOf(tree, path);
  if (interfaces.empty() && children.empty()) return std::nullopt;
  std::string text = std::string(kHeader) + "<node>\n" + kIntrospectable;
  for (const std::string& interface : interfaces) text += InterfaceText(interface);
  for (const std::string& child : children) text += "  <node name=\"" + child + "\"/>\n";
  return text + "</node>\n";
}

}  // namespace halsim
