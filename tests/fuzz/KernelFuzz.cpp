// What udev, a mount table and a state file tell may be any bytes: nothing of it may crash the
// hardware service, become a path, or bring a bus into an object's name.

#include <glib.h>
#include <syslog.h>

#include <cstdio>
#include <string>

#include "Source.h"
#include "hal/face/DeviceTree.h"
#include "hal/face/HalNames.h"
#include "hal/kernel/Media.h"
#include "hal/kernel/MountTable.h"
#include "hal/kernel/Reconciler.h"
#include "hal/kernel/StateFile.h"

namespace {

using namespace halkernel;

BlockFacts ReadFacts(Source& source) {
  // Few paths, so that words about one disk meet.
  BlockFacts facts;
  facts.diskPath = "/sys/devices/d" + std::to_string(source.Byte() % 3);
  facts.partition = static_cast<int>(source.Byte() % 3);
  facts.sysfsPath = facts.diskPath;
  if (facts.partition != 0) facts.sysfsPath += "/p" + std::to_string(facts.partition);
  facts.node = "/dev/" + source.Text();
  facts.number = {source.Byte(), source.Byte()};
  if (source.Byte() % 2 == 0) facts.diskSequence = source.Byte() % 4;
  facts.mediumChanged = source.Byte() % 4 == 0;
  facts.serial = source.Text();
  facts.filesystem = {source.Byte() % 2 == 0 ? "filesystem" : source.Text(), source.Text(),
                      source.Text(), source.Text()};
  if (source.Byte() % 2 == 0) {
    UsbChain chain;
    chain.device = {facts.diskPath + "/usb", 1, 2, source.Text()};
    chain.interface.sysfsPath = facts.diskPath + "/if";
    facts.chain = chain;
  } else {
    SdChain chain;
    chain.controller = {facts.diskPath + "/c", "platform", source.Text()};
    chain.card = {facts.diskPath + "/card", static_cast<int>(source.Byte()), source.Text()};
    chain.cardType = source.Text();
    facts.chain = chain;
  }
  return facts;
}

void CheckTree(const hal::DeviceTree& tree) {
  for (const hal::Device& device : tree.Devices()) {
    Require(g_variant_is_object_path(device.udi.c_str()) != FALSE);
    const std::string name = device.udi.substr(std::string(hal::kDevicePrefix).size());
    Require(name.find('/') == std::string::npos);
    if (device.kind == hal::DeviceKind::Storage || device.kind == hal::DeviceKind::Volume) {
      for (const char* bus : {"usb", "scsi", "mmc"}) Require(name.find(bus) == std::string::npos);
    }
    for (const auto& [key, value] : device.properties) {
      const auto* text = std::get_if<std::string>(&value);
      Require(text == nullptr || g_utf8_validate(text->c_str(), -1, nullptr) != FALSE);
    }
  }
}

void FuzzEvents(Source& source) {
  hal::DeviceTree tree;
  Reconciler reconciler(tree, [] {});
  std::map<std::string, DiskState> disks;
  while (!source.Empty()) {
    const BlockFacts facts = ReadFacts(source);
    DiskState& state = disks[facts.diskPath];
    TakeIn(state, facts);
    reconciler.Show(facts.diskPath, Describe(state, MountIndex()));
  }
  CheckTree(tree);
  const State state{reconciler.Kept(), {}};
  Require(ParseState(FormatState(state)).state == state);
}

void FuzzMounts(Source& source) {
  std::string text = source.Rest();
  if (text.empty()) return;
  std::FILE* file = fmemopen(text.data(), text.size(), "r");
  const auto entries = ReadMountInfo(file);
  std::fclose(file);
  if (entries) MountIndex(Mounts{*entries, {}}).First({8, 1}, "/dev/sda1");
}

void FuzzState(Source& source) {
  const ParsedState parsed = ParseState(source.Rest());
  Require(parsed.state.has_value() == parsed.fault.empty());
  if (!parsed.state) return;
  hal::DeviceTree tree;
  Reconciler reconciler(tree, [] {});
  reconciler.Restore(parsed.state->objects);
  for (const std::string& directory : parsed.state->directories) {
    Require(directory.find('/') == std::string::npos && directory != ".." && !directory.empty());
  }
  reconciler.DropLeftovers();
  Require(tree.Devices().size() == 1);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setlogmask(LOG_MASK(LOG_EMERG));
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Source source(data, size);
  switch (source.Byte() % 3) {
    case 0:
      FuzzEvents(source);
      break;
    case 1:
      FuzzMounts(source);
      break;
    default:
      FuzzState(source);
      break;
  }
  return 0;
}
