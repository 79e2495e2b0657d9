#include "hal/kernel/DeviceList.h"

#include <charconv>
#include <cstdint>
#include <string_view>
#include <variant>
#include <vector>

#include "hal/face/DeviceBuilders.h"
#include "hal/face/HalNames.h"
#include "program/Printable.h"

namespace halkernel {
namespace {

constexpr std::uint64_t kMebibyte = 1024 * 1024;

/// Valid UTF-8 stays as it is.
std::string JsonText(std::string_view text) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string json = "\"";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      json += '\\';
      json += c;
    } else if (byte < 0x20 || byte == 0x7f) {
      json += "\\u00";
      json += kDigits[byte >> 4];
      json += kDigits[byte & 0x0f];
    } else {
      json += c;
    }
  }
  return json + "\"";
}

struct ToJson {
  std::string operator()(const std::string& value) const { return JsonText(value); }
  std::string operator()(std::int32_t value) const { return std::to_string(value); }
  std::string operator()(std::uint64_t value) const { return std::to_string(value); }
  std::string operator()(double value) const {
    char text[32];
    return {text, std::to_chars(text, text + sizeof text, value).ptr};
  }
  std::string operator()(bool value) const { return value ? "true" : "false"; }
  std::string operator()(const std::vector<std::string>& value) const {
    std::string json;
    for (const std::string& text : value) json += (json.empty() ? "" : ",") + JsonText(text);
    return "[" + json + "]";
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
    std::string properties;
    for (const auto& [key, value] : device.properties) {
      properties +=
          (properties.empty() ? "" : ",") + JsonText(key) + ":" + std::visit(ToJson{}, value);
    }
    text += "{\"udi\":" + JsonText(device.udi) + ",\"properties\":{" + properties + "}}\n";
  }
  return text;
}

}  // namespace halkernel
