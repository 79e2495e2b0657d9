#include "hal/face/HalInterfaces.h"

#include <gio/gio.h>

#include <map>
#include <set>
#include <utility>
#include <vector>

#include "glib/Handles.h"
#include "hal/face/HalMethods.h"
#include "hal/face/HalNames.h"

namespace hal {
namespace {

constexpr const char* kDescription = R"xml(<node>
  <interface name="org.freedesktop.DBus.Introspectable">
    <method name="Introspect"><arg name="data" type="s" direction="out"/></method>
  </interface>
  <interface name="org.freedesktop.Hal.Manager">
    <method name="GetAllDevices"><arg type="as" direction="out"/></method>
    <method name="GetAllDevicesWithProperties"><arg type="a(sa{sv})" direction="out"/></method>
    <method name="DeviceExists">
      <arg name="udi" type="s" direction="in"/><arg type="b" direction="out"/>
    </method>
    <method name="FindDeviceStringMatch">
      <arg name="key" type="s" direction="in"/><arg name="value" type="s" direction="in"/>
      <arg type="as" direction="out"/>
    </method>
    <method name="FindDeviceByCapability">
      <arg name="capability" type="s" direction="in"/><arg type="as" direction="out"/>
    </method>
    <signal name="DeviceAdded"><arg name="udi" type="s"/></signal>
    <signal name="DeviceRemoved"><arg name="udi" type="s"/></signal>
    <signal name="NewCapability">
      <arg name="udi" type="s"/><arg name="capability" type="s"/>
    </signal>
  </interface>
  <interface name="org.freedesktop.Hal.Device">
    <method name="GetAllProperties"><arg type="a{sv}" direction="out"/></method>
    <method name="GetProperty">
      <arg name="key" type="s" direction="in"/><arg type="v" direction="out"/>
    </method>
    <method name="GetPropertyString">
      <arg name="key" type="s" direction="in"/><arg type="s" direction="out"/>
    </method>
    <method name="GetPropertyStringList">
      <arg name="key" type="s" direction="in"/><arg type="as" direction="out"/>
    </method>
    <method name="GetPropertyInteger">
      <arg name="key" type="s" direction="in"/><arg type="i" direction="out"/>
    </method>
    <method name="GetPropertyBoolean">
      <arg name="key" type="s" direction="in"/><arg type="b" direction="out"/>
    </method>
    <method name="GetPropertyType">
      <arg name="key" type="s" direction="in"/><arg type="i" direction="out"/>
    </method>
    <method name="PropertyExists">
      <arg name="key" type="s" direction="in"/><arg type="b" direction="out"/>
    </method>
    <method name="QueryCapability">
      <arg name="capability" type="s" direction="in"/><arg type="b" direction="out"/>
    </method>
    <signal name="PropertyModified">
      <arg name="count" type="i"/><arg name="changes" type="a(sbb)"/>
    </signal>
  </interface>
  <interface name="org.freedesktop.Hal.Device.Volume">
    <method name="Mount">
      <arg name="mount_point" type="s" direction="in"/><arg name="fstype" type="s" direction="in"/>
      <arg name="options" type="as" direction="in"/><arg type="i" direction="out"/>
    </method>
    <method name="Unmount">
      <arg name="options" type="as" direction="in"/><arg type="i" direction="out"/>
    </method>
    <method name="Eject">
      <arg name="options" type="as" direction="in"/><arg type="i" direction="out"/>
    </method>
  </interface>
</node>)xml";

// What introspection begins with everywhere.
constexpr const char* kHeader =
    "<!DOCTYPE node PUBLIC \"-//freedesktop//DTD D-BUS Object Introspection 1.0//EN\"\n"
    "  \"http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd\">\n";

/// The description, read once and kept for the process's life.
GDBusInterfaceInfo* Interface(const std::string& name) {
  static GDBusNodeInfo* const description = g_dbus_node_info_new_for_xml(kDescription, nullptr);
  g_assert(description != nullptr);
  return g_dbus_node_info_lookup_interface(description, name.c_str());
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

const std::string& ArgumentSignature(const std::string& interface, const std::string& member) {
  static std::map<std::pair<std::string, std::string>, std::string> signatures;
  const auto [entry, isNew] = signatures.try_emplace({interface, member});
  if (!isNew) return entry->second;
  GDBusInterfaceInfo* const info = Interface(interface);
  g_assert(info != nullptr);
  const GDBusMethodInfo* const method = g_dbus_interface_info_lookup_method(info, member.c_str());
  g_assert(method != nullptr);
  for (GDBusArgInfo** in = method->in_args; in != nullptr && *in != nullptr; ++in) {
    entry->second += (*in)->signature;
  }
  return entry->second;
}

std::optional<std::string> Introspect(const DeviceTree& tree, const std::string& path) {
  const std::vector<std::string> names = InterfacesOf(tree, path);
  const std::set<std::string> children = ChildrenOf(tree, path);
  if (names.empty() && children.empty()) return std::nullopt;

  // Records that only borrow: nothing here is reference-counted.
  std::vector<GDBusInterfaceInfo*> interfaces{Interface(kIntrospectableInterface)};
  for (const std::string& name : names) interfaces.push_back(Interface(name));
  interfaces.push_back(nullptr);
  std::vector<GDBusNodeInfo> childNodes;
  childNodes.reserve(children.size());
  std::vector<GDBusNodeInfo*> childPointers;
  for (const std::string& child : children) {
    childNodes.push_back({-1, const_cast<char*>(child.c_str()), nullptr, nullptr, nullptr});
    childPointers.push_back(&childNodes.back());
  }
  childPointers.push_back(nullptr);
  GDBusNodeInfo node{-1, nullptr, interfaces.data(), childPointers.data(), nullptr};

  const glib::Pointer<GString, [](GString* text) { g_string_free(text, TRUE); }> text(
      g_string_new(kHeader));
  g_dbus_node_info_generate_xml(&node, 0, text.get());
  return std::string(text->str, text->len);
}

}  // namespace hal
