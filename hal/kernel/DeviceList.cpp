#include "hal/kernel/DeviceList.h"

#include <cstdint>
#include <string_view>
#include <variant>
#include <vector>

#include "hal/face/DeviceBuilders.h"
#include "hal/face/HalNames.h"
#include "program/JsonObject.h"
#include "program/Printable.h"

namespace halkernel {
namespace {

constexpr std::uint64_t kMebibyte = 1 << 20;

/// Adds a property to an object, by its type.
struct AddProperty {
  program::JsonObject& object;
  const std::string& key;

  void operator()(const std::string& value) const { object.AddText(key, value); }
  void operator()(bool value) const { object.AddFlag(key, value); }
  void operator()(const std::vector<std::string>& value) const { object.AddTexts(key, value); }
  template <typename T>
  void operator()(T value) const {
    object.AddNumber(key, value);
  }
};

std::string VolumeSummary(const hal::Device& volume) {
  std::string text = "  " + volume.Text("block.device") + ", " + volume.Text("volume.fstype");
  if (const auto* size = volume.Get<std::uint64_t>("volume.size")) {
    text += ", " + std::to_string(*size / kMebibyte) + " MiB";
  }
  if (!volume.Text("volume.label").empty()) text += ", \"" + volume.Text("volume.label") + "\"";
  if (!hal::IsMounted(volume)) return text + ", not mounted";
  const bool* readOnly = volume.Get<bool>(hal::kVolumeIsMountedReadOnly);
  return text + ", mounted at " + volume.Text(hal::kVolumeMountPoint) +
         (readOnly != nullptr && *readOnly ? " (read-only)" : "");
}

std::string Summary(const hal::Device& device) {
  if (device.kind == hal::DeviceKind::Volume) return VolumeSummary(device);
  if (device.kind == hal::DeviceKind::Storage) return "  " + device.Text("block.device");
  return "";
}

std::string Subtree(const hal::DeviceTree& tree, const hal::Device& device, std::size_t depth) {
  const std::string_view name =
      std::string_view(device.udi).substr(std::string_view(hal::kDevicePrefix).size());
  std::string text =
      std::string(2 * depth, ' ') + program::Printable(std::string(name) + Summary(device)) + "\n";
  for (const hal::Device& child : tree.Devices()) {
    if (child.Text("info.parent") == device.udi) text += Subtree(tree, child, depth + 1);
  }
  return text;
}

}  // namespace

std::string ListText(const hal::DeviceTree& tree) {
  return Subtree(tree, *tree.Find(hal::kRootDevice), 0);
}

std::string ListJson(const hal::DeviceTree& tree) {
  std::string text;
  for (const hal::Device& device : tree.Devices()) {
    program::JsonObject properties;
    for (const auto& [key, value] : device.properties) {
      std::visit(AddProperty{properties, key}, value);
    }
    text +=
        program::JsonObject().AddText("udi", device.udi).AddObject("properties", properties).Line();
  }
  return text;
}

}  // namespace halkernel
