#include "hal/kernel/Media.h"

#include <glib.h>

#include <algorithm>

#include "glib/Handles.h"

namespace halkernel {
namespace {

constexpr const char* kFilesystem = "filesystem";
constexpr const char* kEmmc = "MMC";

bool IsSystemPlace(const std::string& target) {
  return target == "/" || target == "/usr" || target == "/var" || target == "/home" ||
         target.starts_with("/boot");
}

/// One word of printable ASCII.
std::string KeyWord(const std::string& text) {
  const glib::CharPointer escaped(
      g_uri_escape_bytes(reinterpret_cast<const guint8*>(text.data()), text.size(), "/:"));
  return escaped.get();
}

std::string Key(std::string_view kind, const std::string& sysfsPath,
                const std::vector<std::string>& identity = {}) {
  std::string key = std::string(kind) + " " + KeyWord(sysfsPath);
  for (const std::string& text : identity) key += " " + KeyWord(text);
  return key;
}

/// The objects above a disk, and what they say about it.
struct Above {
  std::vector<WantedObject> objects;
  hal::DiskFacts disk;

  /// Below the object that was appended before it.
  void Append(std::string key, WantedFacts facts) {
    std::string parent = objects.empty() ? std::string() : objects.back().key;
    objects.push_back({std::move(key), std::move(parent), std::move(facts)});
  }
};

struct ChainReader {
  const std::string& serial;

  std::optional<Above> operator()(std::monostate) const { return std::nullopt; }

  std::optional<Above> operator()(const UsbChain& chain) const {
    Above above;
    hal::UsbDeviceFacts device = chain.device;
    device.serial = CleanText(device.serial);
    above.Append(
        Key("usb_device", device.sysfsPath,
            {std::to_string(device.vendor), std::to_string(device.product), chain.device.serial}),
        device);
    above.Append(Key("usb_interface", chain.interface.sysfsPath), chain.interface);
    above.Append(Key("scsi_host", chain.host.sysfsPath), chain.host);
    above.Append(Key("scsi_device", chain.scsi.sysfsPath), chain.scsi);
    above.disk.bus = "usb";
    above.disk.driveType = "disk";
    above.disk.serial = CleanText(serial);
    return above;
  }

  std::optional<Above> operator()(const SdChain& chain) const {
    Above above;
    hal::CardFacts card = chain.card;
    card.cid = CleanText(card.cid);
    above.Append(Key("controller", chain.controller.sysfsPath), chain.controller);
    above.Append(Key("sd_host", chain.host.sysfsPath), chain.host);
    above.Append(Key("card", card.sysfsPath, {chain.card.cid}), card);
    above.disk.bus = "mmc";
    above.disk.driveType = "sd_mmc";
    above.disk.serial = hal::CardSerial(card.cid);
    return above;
  }
};

hal::BlockNode NodeOf(const BlockFacts& facts) {
  return {CleanText(facts.node), static_cast<int>(facts.number.major),
          static_cast<int>(facts.number.minor)};
}

bool HoldsVolume(const Reported& reported, std::uint64_t medium) {
  return reported.medium == medium && !reported.withdrawn && !reported.facts.leftToOthers &&
         reported.facts.filesystem.usage == kFilesystem;
}

VolumeMount MountOf(const BlockFacts& facts, const MountIndex& mounts) {
  const MountEntry* entry = mounts.First(facts.number, facts.node);
  if (entry == nullptr) return {};
  return {CleanText(entry->target), true, entry->readOnly};
}

WantedObject VolumeOf(const Reported& reported, const std::string& diskKey,
                      const MountIndex& mounts) {
  const BlockFacts& facts = reported.facts;
  const FilesystemFacts& found = facts.filesystem;
  WantedVolume wanted;
  wanted.volume.sysfsPath = facts.sysfsPath;
  wanted.volume.node = NodeOf(facts);
  wanted.volume.partition = facts.partition;
  wanted.volume.fstype = CleanText(found.type);
  wanted.volume.label = DecodeLabel(found.encodedLabel);
  wanted.volume.uuid = CleanText(found.uuid);
  wanted.volume.sizeBytes = facts.sizeBytes;
  wanted.mount = MountOf(facts, mounts);
  // Without a number of the kernel's, media are distinguished by removal at the moment of the
  // change.
  const std::string medium = facts.diskSequence ? std::to_string(reported.medium) : "-";
  return {Key("volume", facts.sysfsPath, {medium, found.type, found.uuid}), diskKey,
          std::move(wanted)};
}

void AppendVolumes(const DiskState& state, const std::string& diskKey, const MountIndex& mounts,
                   std::vector<WantedObject>& objects) {
  bool partitioned = state.disk->facts.hasPartitions;
  for (const auto& [path, reported] : state.partitions) {
    partitioned = partitioned || (reported.medium == state.medium && !reported.withdrawn);
    if (HoldsVolume(reported, state.medium)) objects.push_back(VolumeOf(reported, diskKey, mounts));
  }
  // A partition table proves nothing: file systems on a whole disk may look as if they had one.
  if (!partitioned && HoldsVolume(*state.disk, state.medium)) {
    objects.push_back(VolumeOf(*state.disk, diskKey, mounts));
  }
}

int HexDigit(char c) {
  return g_ascii_isxdigit(c) ? g_ascii_xdigit_value(c) : -1;
}

}  // namespace

Intake TakeIn(DiskState& state, const BlockFacts& facts) {
  const bool first = !state.disk && state.partitions.empty();
  const bool counted = facts.IsDisk() && facts.mediumChanged && state.disk;
  const std::uint64_t medium = facts.diskSequence.value_or(state.medium + (counted ? 1 : 0));
  // An old word about the disk is better than none; nothing on the medium follows from it.
  const bool onlyWord = facts.IsDisk() && !state.disk;
  if (!first && medium < state.medium && !onlyWord) return Intake::Obsolete;
  const bool newMedium = !first && medium > state.medium;
  if (newMedium) state.partitions.clear();
  if (first || newMedium) state.medium = medium;
  if (facts.IsDisk()) {
    state.disk = Reported{facts, medium, false};
  } else {
    state.partitions.insert_or_assign(facts.sysfsPath, Reported{facts, medium, false});
  }
  return newMedium ? Intake::NewMedium : Intake::Taken;
}

const char* LeftOut(const DiskState& state, const MountIndex& mounts) {
  if (!state.disk || state.disk->withdrawn) return "nothing is known about it";
  const BlockFacts& disk = state.disk->facts;
  if (std::holds_alternative<std::monostate>(disk.chain)) return "it is on neither USB nor SD";
  if (disk.optical) return "it is an optical drive";
  if (disk.leftToOthers) return "a udev rule leaves it to others";
  const auto* card = std::get_if<SdChain>(&disk.chain);
  if (card != nullptr && card->cardType == kEmmc) return "it is an eMMC";
  bool system = RunsTheSystem(disk, mounts);
  for (const auto& [path, reported] : state.partitions) {
    system = system || RunsTheSystem(reported.facts, mounts);
  }
  return system ? "the system runs from it" : nullptr;
}

std::vector<WantedObject> Describe(const DiskState& state, const MountIndex& mounts) {
  if (LeftOut(state, mounts) != nullptr) return {};
  const BlockFacts& facts = state.disk->facts;
  std::optional<Above> above = std::visit(ChainReader{facts.serial}, facts.chain);
  if (!above) return {};
  above->disk.sysfsPath = facts.sysfsPath;
  above->disk.node = NodeOf(facts);
  const std::string diskKey = Key("storage", facts.sysfsPath, {above->disk.serial});
  above->Append(diskKey, above->disk);
  AppendVolumes(state, diskKey, mounts, above->objects);
  return std::move(above->objects);
}

bool RunsTheSystem(const BlockFacts& facts, const MountIndex& mounts) {
  if (mounts.IsSwap(facts.node)) return true;
  const std::vector<MountEntry> places = mounts.All(facts.number, facts.node);
  return std::any_of(places.begin(), places.end(),
                     [](const MountEntry& entry) { return IsSystemPlace(entry.target); });
}

std::string PlugOf(std::string_view sysfsPath) {
  std::string plug;
  std::string_view previous;
  while (!sysfsPath.empty()) {
    const std::size_t slash = sysfsPath.find('/');
    const std::string_view part = sysfsPath.substr(0, slash);
    sysfsPath.remove_prefix(slash == std::string_view::npos ? sysfsPath.size() : slash + 1);
    // An interface is called after its device, as in 1-1.3/1-1.3:1.0.
    const bool interface = !previous.empty() && part.starts_with(std::string(previous) + ":");
    if (interface && previous.find('-') != std::string_view::npos) {
      plug = "usb " + std::string(previous);
    }
    if (previous == "mmc_host") plug = part;
    previous = part;
  }
  return plug;
}

std::string DecodeLabel(std::string_view encoded) {
  std::string bytes;
  for (std::size_t at = 0; at < encoded.size(); ++at) {
    const bool escape = encoded.substr(at).starts_with("\\x") && at + 3 < encoded.size();
    const int high = escape ? HexDigit(encoded[at + 2]) : -1;
    const int low = escape ? HexDigit(encoded[at + 3]) : -1;
    if (high < 0 || low < 0) {
      bytes += encoded[at];
      continue;
    }
    bytes += static_cast<char>(high << 4 | low);
    at += 3;
  }
  return CleanText(bytes);
}

std::string CleanText(std::string_view bytes) {
  if (bytes.empty()) return {};
  const glib::CharPointer valid(g_utf8_make_valid(bytes.data(), static_cast<gssize>(bytes.size())));
  std::string text;
  for (const char* at = valid.get(); *at != '\0'; at = g_utf8_next_char(at)) {
    const char* end = g_utf8_next_char(at);
    text += g_unichar_iscntrl(g_utf8_get_char(at)) ? std::string("_") : std::string(at, end);
  }
  return text;
}

}  // namespace halkernel
