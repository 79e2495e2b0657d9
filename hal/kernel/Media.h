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

// What udev has reported about one disk and its partitions, and the objects that follow from it:
// free functions on values.
//
// The medium rule. A reader's slot keeps its disk while cards come and go, and the kernel keeps
// partitions of the old card for as long as one of them is mounted. Each medium has a number, and
// only reports about the newest count: a report about a newer medium makes all older ones obsolete,
// and a report about an older medium is dropped.

namespace halkernel {

/// The report about one disk or partition, and its medium.
struct Reported {
  BlockFacts facts;
  std::uint64_t medium = 0;
  bool withdrawn = false;  // removed by an event written by hand; the device still exists
};

struct DiskState {
  std::optional<Reported> disk;                // nullopt: not reported yet
  std::map<std::string, Reported> partitions;  // by sysfs path
  std::uint64_t medium = 0;                    // the newest reported
};

enum class Intake {
  Taken,
  NewMedium,  // accepted; the reports about the previous medium are dropped
  Obsolete,   // about a medium that is gone: dropped
};

/// Takes in a report about the disk or one of its partitions.
Intake TakeIn(DiskState& state, const BlockFacts& facts);

struct WantedVolume {
  hal::VolumeFacts volume;
  VolumeMount mount;
};

using WantedFacts =
    std::variant<hal::UsbDeviceFacts, UsbInterfaceFacts, ScsiHostFacts, ScsiDeviceFacts,
                 ControllerFacts, SdHostFacts, hal::CardFacts, hal::DiskFacts, WantedVolume>;

/// An object that should be in the tree.
struct WantedObject {
  /// Its identity: kind, sysfs path, and what distinguishes one device or medium at that place from
  /// the next. Printable ASCII. The same key means the same object, perhaps changed.
  std::string key;
  std::string parent;  // key of the parent; empty: the root
  WantedFacts facts;
};

/// The objects of a disk, parents first; empty if the disk is left out.
std::vector<WantedObject> Describe(const DiskState& state, const MountIndex& mounts);

/// Why a disk has no objects, for the log; null if it has some.
const char* LeftOut(const DiskState& state, const MountIndex& mounts);

/// Whether the system runs from this disk or partition: it is in use for swapping, or mounted at /,
/// /boot..., /usr, /var or /home.
bool RunsTheSystem(const BlockFacts& facts, const MountIndex& mounts);

/// Where the device at this sysfs path is plugged in, for people: "usb 1-1.3", "mmc0"; empty if on
/// neither bus.
std::string PlugOf(std::string_view sysfsPath);

/// Decodes a label from udev, in which "\xNN" is a byte. The result is valid UTF-8 without control
/// characters.
std::string DecodeLabel(std::string_view encoded);
/// The bytes as valid UTF-8 without control characters: invalid bytes become U+FFFD, control
/// characters "_".
std::string CleanText(std::string_view bytes);

}  // namespace halkernel
