#include "hal/face/HalMethods.h"

#include <algorithm>

#include "hal/face/HalNames.h"
#include "hal/face/Text.h"

namespace hal {
namespace {

constexpr const char* kHalError = "org.freedesktop.Hal.";

// The type number of a string list: 's' and 'l' in two bytes. All others are D-Bus type codes.
constexpr int kStringListType = ('s' << 8) + 'l';

GVariant* TextArray(const std::vector<std::string>& texts) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE_STRING_ARRAY);
  for (const std::string& text : texts) g_variant_builder_add(&builder, "s", text.c_str());
  return g_variant_builder_end(&builder);
}

std::vector<std::string> TextsIn(GVariant* array) {
  std::vector<std::string> texts;
  GVariantIter iterator;
  g_variant_iter_init(&iterator, array);
  const char* text = nullptr;
  while (g_variant_iter_next(&iterator, "&s", &text)) texts.emplace_back(text);
  return texts;
}

struct ToVariant {
  GVariant* operator()(const std::string& value) const {
    return g_variant_new_string(value.c_str());
  }
  GVariant* operator()(std::int32_t value) const { return g_variant_new_int32(value); }
  GVariant* operator()(std::uint64_t value) const { return g_variant_new_uint64(value); }
  GVariant* operator()(double value) const { return g_variant_new_double(value); }
  GVariant* operator()(bool value) const { return g_variant_new_boolean(value); }
  GVariant* operator()(const std::vector<std::string>& value) const { return TextArray(value); }
};

GVariant* PropertiesOf(const Device& device) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE_VARDICT);
  for (const auto& [key, value] : device.properties) {
    g_variant_builder_add(&builder, "{sv}", key.c_str(), std::visit(ToVariant{}, value));
  }
  return g_variant_builder_end(&builder);
}

/// The argument at this place, a string.
std::string TextAt(const CallContext& context, gsize index) {
  const glib::VariantPointer child(g_variant_get_child_value(context.arguments, index));
  return g_variant_get_string(child.get(), nullptr);
}

/// A tuple of one.
CallResult One(GVariant* value) {
  return CallResult::Values(g_variant_new_tuple(&value, 1));
}

std::optional<CallResult> GetAllDevices(const CallContext& context) {
  std::vector<std::string> udis;
  for (const Device& device : context.tree.Devices()) udis.push_back(device.udi);
  return One(TextArray(udis));
}

std::optional<CallResult> GetAllDevicesWithProperties(const CallContext& context) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE("a(sa{sv})"));
  for (const Device& device : context.tree.Devices()) {
    g_variant_builder_add(&builder, "(s@a{sv})", device.udi.c_str(), PropertiesOf(device));
  }
  return One(g_variant_builder_end(&builder));
}

std::optional<CallResult> DeviceExists(const CallContext& context) {
  return One(g_variant_new_boolean(context.tree.Find(TextAt(context, 0)) != nullptr));
}

std::optional<CallResult> FindDeviceStringMatch(const CallContext& context) {
  const std::string key = TextAt(context, 0);
  const std::string value = TextAt(context, 1);
  std::vector<std::string> udis;
  for (const Device& device : context.tree.Devices()) {
    const std::string* text = device.Get<std::string>(key);
    if (text != nullptr && *text == value) udis.push_back(device.udi);
  }
  return One(TextArray(udis));
}

std::optional<CallResult> FindDeviceByCapability(const CallContext& context) {
  return One(TextArray(context.tree.FindByCapability(TextAt(context, 0))));
}

std::optional<CallResult> GetAllProperties(const CallContext& context) {
  return One(PropertiesOf(*context.device));
}

/// The property that the first argument names; null with the error set in `result`.
const PropertyValue* NeedProperty(const CallContext& context, CallResult& result) {
  const std::string key = TextAt(context, 0);
  const auto found = context.device->properties.find(key);
  if (found != context.device->properties.end()) return &found->second;
  result = CallResult::Error(std::string(kHalError) + "NoSuchProperty",
                             "No property " + key + " on device with id " + context.device->udi);
  return nullptr;
}

template <typename T>
std::optional<CallResult> GetPropertyAs(const CallContext& context) {
  CallResult result;
  const PropertyValue* value = NeedProperty(context, result);
  if (value == nullptr) return result;
  if (const T* typed = std::get_if<T>(value)) return One(ToVariant{}(*typed));
  return CallResult::Error(std::string(kHalError) + "TypeMismatch",
                           "Type mismatch for property " + TextAt(context, 0) +
                               " on device with id " + context.device->udi);
}

std::optional<CallResult> GetProperty(const CallContext& context) {
  CallResult result;
  const PropertyValue* value = NeedProperty(context, result);
  if (value == nullptr) return result;
  return One(g_variant_new_variant(std::visit(ToVariant{}, *value)));
}

std::optional<CallResult> GetPropertyType(const CallContext& context) {
  CallResult result;
  const PropertyValue* value = NeedProperty(context, result);
  if (value == nullptr) return result;
  if (std::holds_alternative<std::vector<std::string>>(*value)) {
    return One(g_variant_new_int32(kStringListType));
  }
  const glib::VariantPointer variant = glib::Sink(std::visit(ToVariant{}, *value));
  return One(g_variant_new_int32(g_variant_get_type_string(variant.get())[0]));
}

std::optional<CallResult> PropertyExists(const CallContext& context) {
  return One(g_variant_new_boolean(context.device->properties.contains(TextAt(context, 0))));
}

std::optional<CallResult> QueryCapability(const CallContext& context) {
  const auto* capabilities = context.device->Get<std::vector<std::string>>("info.capabilities");
  const std::string wanted = TextAt(context, 0);
  const bool has = capabilities != nullptr && std::find(capabilities->begin(), capabilities->end(),
                                                        wanted) != capabilities->end();
  return One(g_variant_new_boolean(has));
}

std::vector<std::string> TextsAt(const CallContext& context, gsize index) {
  const glib::VariantPointer child(g_variant_get_child_value(context.arguments, index));
  return TextsIn(child.get());
}

CallResult VolumeResult(const std::optional<VolumeError>& refused) {
  if (refused) return CallResult::Error(ErrorName(refused->fault), refused->text);
  return One(g_variant_new_int32(0));
}

IVolumeActions::Done AnswerWhenDone(const CallContext& context) {
  return [answer = context.answer](const std::optional<VolumeError>& refused) {
    answer(VolumeResult(refused));
  };
}

std::optional<CallResult> Mount(const CallContext& context) {
  const auto checked =
      CheckMount(*context.device, TextAt(context, 0), TextAt(context, 1), TextsAt(context, 2));
  if (const auto* refused = std::get_if<VolumeError>(&checked)) return VolumeResult(*refused);
  context.actions.Mount(context.device->udi, std::get<MountRequest>(checked),
                        AnswerWhenDone(context));
  return std::nullopt;
}

std::optional<CallResult> Unmount(const CallContext& context) {
  const bool lazy = Contains(Flatten(TextsAt(context, 0)), "lazy");
  context.actions.Unmount(context.device->udi, lazy, AnswerWhenDone(context));
  return std::nullopt;
}

std::optional<CallResult> Eject(const CallContext& context) {
  // A copy: the device may go away on the way.
  const std::string udi = context.device->udi;
  context.actions.Eject(udi, AnswerWhenDone(context));
  return std::nullopt;
}

const std::vector<Method>& Methods() {
  static const char* const manager = kManagerInterface;
  static const char* const device = kDeviceInterface;
  static const char* const volume = kVolumeInterface;
  static const std::vector<Method> methods = {
      {manager, "GetAllDevices", GetAllDevices},
      {manager, "GetAllDevicesWithProperties", GetAllDevicesWithProperties},
      {manager, "DeviceExists", DeviceExists},
      {manager, "FindDeviceStringMatch", FindDeviceStringMatch},
      {manager, "FindDeviceByCapability", FindDeviceByCapability},
      {device, "GetAllProperties", GetAllProperties},
      {device, "GetProperty", GetProperty},
      {device, "GetPropertyString", GetPropertyAs<std::string>},
      {device, "GetPropertyStringList", GetPropertyAs<std::vector<std::string>>},
      {device, "GetPropertyInteger", GetPropertyAs<std::int32_t>},
      {device, "GetPropertyBoolean", GetPropertyAs<bool>},
      {device, "GetPropertyType", GetPropertyType},
      {device, "PropertyExists", PropertyExists},
      {device, "QueryCapability", QueryCapability},
      {volume, "Mount", Mount},
      {volume, "Unmount", Unmount},
      {volume, "Eject", Eject},
  };
  return methods;
}

}  // namespace

const Method* FindMethod(const std::vector<std::string>& interfaces, const std::string& interface,
                         const std::string& member) {
  for (const Method& method : Methods()) {
    const bool named = interface.empty() || interface == method.interface;
    if (named && member == method.member && Contains(interfaces, method.interface)) {
      return &method;
    }
  }
  return nullptr;
}

std::vector<std::string> InterfacesOf(const DeviceTree& tree, const std::string& path) {
  if (path == kManagerPath) return {kManagerInterface};
  const Device* device = tree.Find(path);
  if (device == nullptr) return {};
  if (device->kind == DeviceKind::Volume) return {kDeviceInterface, kVolumeInterface};
  return {kDeviceInterface};
}

}  // namespace hal
