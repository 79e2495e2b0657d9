#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "hal/kernel/BlockFacts.h"
#include "hal/kernel/Mounts.h"
#include "hal/kernel/StateFile.h"

// What udev told of one disk and its partitions, and which objects follow from it: free functions
// over values.
//
// The medium rule. A reader's slot keeps its disk while cards come and go, and the kernel keeps
// partitions of the old card for as long as one of them is mounted. Each medium has a number, and
// only what was told of the newest counts: a word about a newer medium makes all of the older
// obsolete, a word about an older one is dropped.

namespace halkernel {

/// What was told of one disk or partition, and of which medium.
struct Told {
  BlockFacts facts;
  std::uint64_t medium = 0;
  bool withdrawn = false;  // an event written by hand took it away; the device is there still
};

struct DiskState {
  std::optional<Told> disk;                // none: not told of yet
  std::map<std::string, Told> partitions;  // by sysfs path
  std::uint64_t medium = 0;                // the newest that was told of
};

enum class Intake {
  Taken,
  NewMedium,  // taken; what was told of the medium before is dropped
  Obsolete,   // about a medium that is gone: dropped
};

/// Takes in what was told of the disk or of one of its partitions.
Intake TakeIn(DiskState& state, const BlockFacts& facts);

struct WantedVolume {
  hal::VolumeFacts volume;
  VolumeMount mount;
};

using WantedFacts =
    std::variant<hal::UsbDeviceFacts, UsbInterfaceFacts, ScsiHostFacts, ScsiDeviceFacts,
                 ControllerFacts, SdHostFacts, hal::CardFacts, hal::DiskFacts, WantedVolume>;

/// An object that is to be in the tree.
struct WantedObject {
  /// What it stands for: kind, sysfs path, and what tells one device or medium at that place from
  /// the next. Printable ASCII. The same key is the same object, changed at most.
  std::string key;
  std::string parent;  // key of the parent; empty: the root
  WantedFacts facts;
};

/// The objects of a disk, parents first; none when the disk is left out.
std::vector<WantedObject> Describe(const DiskState& state, const MountIndex& mounts);

/// Why a disk has no objects, for the log; null when it has.
const char* LeftOut(const DiskState& state, const MountIndex& mounts);

/// Whether the system runs from this disk or partition: it is swapped on, or mounted at /,
/// /boot..., /usr, /var or /home.
bool RunsTheSystem(const BlockFacts& facts, const MountIndex& mounts);

/// Where a device of this sysfs path is plugged, for people: "usb 1-1.3", "mmc0"; empty for
/// neither.
std::string PlugOf(std::string_view sysfsPath);

/// A label as udev encodes it: "\xNN" stands for a byte. The result is valid UTF-8 without control
/// characters.
std::string DecodeLabel(std::string_view encoded);
/// The bytes as valid UTF-8 without control characters; what is neither becomes U+FFFD or "_".
std::string CleanText(std::string_view bytes);

}  // namespace halkernel
