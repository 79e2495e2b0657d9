#include "hal/face/MountRequest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

#include "hal/face/DeviceBuilders.h"
#include "hal/face/HalNames.h"

namespace {

using hal::VolumeFault;
using testing::ElementsAre;
using Texts = std::vector<std::string>;

/// A volume as the builders make it.
hal::Device Volume(bool mounted, const std::string& fstype = "vfat") {
  hal::DeviceTree tree;
  hal::DeviceChain chain(tree);
  hal::VolumeFacts facts;
  facts.fstype = fstype;
  facts.uuid = "AA";
  facts.label = "MAPS";
  hal::AppendVolume(chain, {hal::kRootDevice, "/sys"}, facts);
  hal::Device volume = chain.Take().front();
  for (const auto& [key, value] : hal::MountState(mounted ? "/media/a" : "", mounted, false)) {
    volume.properties[key] = *value;
  }
  return volume;
}

TEST(MountRequest, FaultsAreFoundInTheirOrder) {
  const struct {
    std::string name;
    std::string fstype;
    Texts options;
    bool mounted;
    std::optional<VolumeFault> fault;
  } kTable[] = {
      {"sda1", "vfat", {}, false, std::nullopt},
      {"sda1", "", {}, false, std::nullopt},
      {"", "vfat", {}, false, std::nullopt},
      {".", "vfat", {}, false, std::nullopt},  // it exists, and so cannot be made
      {"a/b", "vfat", {}, false, VolumeFault::InvalidMountpoint},
      {"/", "vfat", {}, false, VolumeFault::InvalidMountpoint},
      {"a\nb", "vfat", {}, false, VolumeFault::InvalidMountpoint},
      {"a/b", "vfat", {"nonsense"}, true, VolumeFault::InvalidMountpoint},
      {"sda1", "vfat", {"remount", "ro"}, false, VolumeFault::CannotRemount},
      {"sda1", "vfat", {"remount", "ro"}, true, std::nullopt},
      {"sda1", "vfat", {"remount,rw"}, true, std::nullopt},
      {"sda1", "vfat", {}, true, VolumeFault::AlreadyMounted},
      {"sda1", "vfat", {"nonsense"}, true, VolumeFault::AlreadyMounted},
      {"sda1", "vfat", {"nonsense"}, false, VolumeFault::InvalidMountOption},
      {"sda1", "vfat", {"suid"}, false, VolumeFault::InvalidMountOption},
      {"sda1", "vfat", {"dev"}, false, VolumeFault::InvalidMountOption},
      {"sda1", "vfat", {"loop"}, false, VolumeFault::InvalidMountOption},
      {"sda1", "vfat", {"utf8,suid"}, false, VolumeFault::InvalidMountOption},
      {"sda1", "vfat", {""}, false, std::nullopt},
      {"sda1", "vfat", {"ro,"}, false, VolumeFault::InvalidMountOption},
      {"sda1", "vfat", {"umask"}, false, VolumeFault::InvalidMountOption},
      {"sda1", "vfat", {"umask=0"}, false, std::nullopt},
      {"sda1", "vfat", {"ro=1"}, false, VolumeFault::InvalidMountOption},
  };
  for (const auto& row : kTable) {
    const auto checked = hal::CheckMount(Volume(row.mounted), row.name, row.fstype, row.options);
    const auto* error = std::get_if<hal::VolumeError>(&checked);
    const auto fault = error != nullptr ? std::optional(error->fault) : std::nullopt;
    EXPECT_EQ(fault, row.fault) << row.name << " " << testing::PrintToString(row.options);
  }
}

TEST(MountRequest, WithoutATypeAnywhereItIsUnknown) {
  const auto checked = hal::CheckMount(Volume(false, ""), "sda1", "", {});
  EXPECT_EQ(std::get<hal::VolumeError>(checked).fault, VolumeFault::UnknownFilesystemType);
}

TEST(MountRequest, WithoutAListEveryOptionIsTaken) {
  hal::Device volume = Volume(false);
  volume.properties.erase("volume.mount.valid_options");
  EXPECT_TRUE(std::holds_alternative<hal::MountRequest>(
      hal::CheckMount(volume, "sda1", "vfat", {"nonsense"})));
}

TEST(MountRequest, CarriesTypeAndFlattenedOptions) {
  const auto checked = hal::CheckMount(Volume(false), "sda1", "", {"utf8,shortname=mixed", "ro"});
  const auto& request = std::get<hal::MountRequest>(checked);
  EXPECT_EQ(request.fstype, "vfat");
  EXPECT_THAT(request.options, ElementsAre("utf8", "shortname=mixed", "ro"));
  EXPECT_TRUE(request.readOnly);
  EXPECT_FALSE(request.readWrite);
  EXPECT_FALSE(request.remount);
}

TEST(MountRequest, ReadWriteWinsOverReadOnly) {
  const auto checked = hal::CheckMount(Volume(true), "", "", {"remount", "ro", "rw"});
  const auto& request = std::get<hal::MountRequest>(checked);
  EXPECT_FALSE(request.readOnly);
  EXPECT_TRUE(request.readWrite);
  EXPECT_TRUE(request.remount);
}

TEST(MountRequest, TheLabelNamesTheDirectoryIfItCanBeOne) {
  const struct {
    std::string label;
    int number;
    std::string name;
  } kTable[] = {
      {"MAPS", 0, "MAPS"},
      {"MAPS", 2, "MAPS-2"},
      {"", 0, "disk"},
      {"", 1, "disk-1"},
      {".", 0, "disk"},
      {"..", 0, "disk"},
      {"a/b", 0, "disk"},
      {"../etc", 0, "disk"},
      {"a\nb", 0, "disk"},
      {"a\x7f", 0, "disk"},
      {"a\x1b[2J", 0, "disk"},
      {"-x", 0, "-x"},
      {std::string(255, 'x'), 0, std::string(255, 'x')},
      {std::string(256, 'x'), 0, "disk"},
  };
  hal::Device volume = Volume(false);
  for (const auto& row : kTable) {
    volume.properties["volume.label"] = row.label;
    EXPECT_EQ(hal::DefaultName(volume, row.number), row.name) << row.label;
  }
}

TEST(VolumeError, NamesAreThoseOfTheInterface) {
  EXPECT_EQ(hal::ErrorName(VolumeFault::Busy), "org.freedesktop.Hal.Device.Volume.Busy");
  EXPECT_EQ(hal::ErrorName(VolumeFault::InvalidMountpoint),
            "org.freedesktop.Hal.Device.Volume.InvalidMountpoint");
}

}  // namespace
