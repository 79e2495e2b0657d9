#include "hal/kernel/Reconciler.h"

#include <iterator>
#include <list>

#include "hal/face/DeviceBuilders.h"
#include "hal/face/HalNames.h"
#include "hal/kernel/Log.h"

namespace halkernel {
namespace {

constexpr std::uint64_t kMebibyte = 1024 * 1024;

/// Appends the object to a chain below its parent.
struct Builder {
  hal::DeviceChain& chain;
  const hal::Place parent;

  void operator()(const hal::UsbDeviceFacts& facts) const { hal::AppendUsbDevice(chain, facts); }
  void operator()(const UsbInterfaceFacts& facts) const {
    hal::AppendUsbInterface(chain, parent, facts.number, facts.sysfsPath);
  }
  void operator()(const ScsiHostFacts& facts) const {
    hal::AppendScsiHost(chain, parent, facts.sysfsPath);
  }
  void operator()(const ScsiDeviceFacts& facts) const {
    hal::AppendScsiDevice(chain, parent, facts.address, facts.sysfsPath);
  }
  void operator()(const ControllerFacts& facts) const {
    hal::AppendController(chain, facts.bus, facts.name, facts.sysfsPath);
  }
  void operator()(const SdHostFacts& facts) const {
    hal::AppendSdHost(chain, parent, facts.number, facts.sysfsPath);
  }
  void operator()(const hal::CardFacts& facts) const { hal::AppendCard(chain, parent, facts); }
  void operator()(const hal::DiskFacts& facts) const {
    hal::DiskFacts named = facts;
    if (named.serial.empty()) named.serial = "noserial";
    hal::AppendDisk(chain, parent, named);
  }
  void operator()(const WantedVolume& wanted) const {
    hal::AppendVolume(chain, parent, wanted.volume);
    hal::Device* volume = chain.Find(chain.Devices().back().udi);
    const VolumeMount& mount = wanted.mount;
    for (auto& [key, value] : hal::MountState(mount.place, mount.mounted, mount.readOnly)) {
      volume->properties[key] = *value;
    }
  }
};

hal::PropertyEdits MountEdits(const VolumeMount& mount) {
  return hal::MountState(mount.place, mount.mounted, mount.readOnly);
}

std::string NameOf(const std::string& udi) {
  return udi.substr(std::string_view(hal::kDevicePrefix).size());
}

/// Gives the device another path, wherever its own stands.
void Rename(hal::Device& device, const std::string& udi) {
  for (auto& [key, value] : device.properties) {
    const auto* text = std::get_if<std::string>(&value);
    if (text != nullptr && *text == device.udi) value = udi;
  }
  device.udi = udi;
}

std::string ShortNode(const std::string& node) {
  return node.substr(node.rfind('/') + 1);
}

void LogArrival(const WantedVolume& wanted, const std::string& name) {
  const hal::VolumeFacts& volume = wanted.volume;
  Log(LOG_INFO, ShortNode(volume.node.path) + ": " + volume.fstype + ", " +
                    std::to_string(volume.sizeBytes / kMebibyte) + " MiB, " +
                    PlugOf(volume.sysfsPath) + " as " + name);
}

}  // namespace

void Reconciler::Show(const std::string& disk, const std::vector<WantedObject>& wanted) {
  Remove(Unwanted(disk, wanted));
  std::vector<const WantedObject*> missing;
  for (const WantedObject& object : wanted) {
    Object* known = Find(object.key);
    if (known == nullptr) {
      missing.push_back(&object);
      continue;
    }
    known->disks.insert(disk);
    Modify(*known, object);
    const auto* volume = std::get_if<WantedVolume>(&object.facts);
    if (volume != nullptr) SetMount(object.key, volume->mount);
  }
  Add(disk, missing);
}

/// The objects that have to go: those that this disk alone wanted, those whose parent is another
/// now, and all below them. The disk is taken off those that stay for others.
std::set<std::string> Reconciler::Unwanted(const std::string& disk,
                                           const std::vector<WantedObject>& wanted) {
  std::unordered_map<std::string, std::string> parents;
  for (const WantedObject& object : wanted) parents[object.key] = object.parent;
  std::set<std::string> unwanted;
  for (Object& object : objects_) {
    const KeptObject& kept = object.kept;
    const auto stays = parents.find(kept.key);
    const bool given = stays == parents.end() && object.disks.erase(disk) != 0;
    const bool moved = stays != parents.end() && stays->second != kept.parent;
    if ((given && object.disks.empty()) || moved || unwanted.contains(kept.parent)) {
      unwanted.insert(kept.key);
    }
  }
  return unwanted;
}

void Reconciler::Remove(const std::set<std::string>& keys) {
  if (keys.empty()) return;
  for (auto object = objects_.end(); object != objects_.begin();) {
    --object;
    const KeptObject& kept = object->kept;
    if (!keys.contains(kept.key)) continue;
    if (!kept.node.empty()) Log(LOG_INFO, ShortNode(kept.node) + ": gone, was " + kept.name);
    tree_.Remove(hal::kDevicePrefix + kept.name);
    byKey_.erase(kept.key);
    object = objects_.erase(object);
  }
  onChange_();
}

void Reconciler::Add(const std::string& disk, const std::vector<const WantedObject*>& wanted) {
  if (wanted.empty()) return;
  std::list<hal::Device> devices;
  for (const WantedObject* object : wanted) {
    hal::Device& device = devices.emplace_back(Build(*object));
    Rename(device, tree_.Reserve(NameOf(device.udi)));
    KeptObject kept{object->key, object->parent, NameOf(device.udi), "", {}};
    if (const auto* volume = std::get_if<WantedVolume>(&object->facts)) {
      kept.node = volume->volume.node.path;
      kept.mount = volume->mount;
      LogArrival(*volume, kept.name);
    }
    Append(std::move(kept), {disk}, false);
  }
  onChange_();
  for (hal::Device& device : devices) tree_.Add(std::move(device));
}

/// All but the mount state.
void Reconciler::Modify(const Object& object, const WantedObject& wanted) {
  const std::string udi = hal::kDevicePrefix + object.kept.name;
  hal::Device device = Build(wanted);
  Rename(device, udi);
  if (std::holds_alternative<WantedVolume>(wanted.facts)) {
    for (const auto& [key, value] : MountEdits({})) device.properties.erase(key);
  }
  tree_.Modify(udi, hal::PropertyEdits(device.properties.begin(), device.properties.end()));
}

void Reconciler::SetMount(const std::string& key, const VolumeMount& mount) {
  Object* object = Find(key);
  if (object == nullptr || object->kept.mount == mount) return;
  object->kept.mount = mount;
  tree_.Modify(hal::kDevicePrefix + object->kept.name, MountEdits(mount));
  onChange_();
}

hal::Device Reconciler::Build(const WantedObject& wanted) const {
  hal::DeviceTree scratch;
  hal::DeviceChain chain(scratch);
  const auto parent = byKey_.find(wanted.parent);
  const std::string udi =
      parent == byKey_.end() ? hal::kRootDevice : hal::kDevicePrefix + parent->second->kept.name;
  std::visit(Builder{chain, {udi, ""}}, wanted.facts);
  return std::move(chain.Take().front());
}

void Reconciler::Restore(const std::vector<KeptObject>& objects) {
  const hal::DeviceTree::Silence silence(tree_);
  for (const KeptObject& kept : objects) {
    hal::Device device;
    device.udi = tree_.Reserve(kept.name);
    device.properties["info.udi"] = device.udi;
    if (!kept.node.empty()) {
      device.kind = hal::DeviceKind::Volume;
      for (const auto& [key, value] : MountEdits(kept.mount)) device.properties[key] = *value;
    }
    Append(kept, {}, true);
    tree_.Add(std::move(device));
  }
}

void Reconciler::Resemble(const std::vector<WantedObject>& wanted) {
  const hal::DeviceTree::Silence silence(tree_);
  for (const WantedObject& object : wanted) {
    Object* known = Find(object.key);
    if (known == nullptr || known->kept.parent != object.parent) continue;
    known->leftover = false;
    Modify(*known, object);
  }
}

std::vector<KeptObject> Reconciler::Leftovers() const {
  std::vector<KeptObject> leftovers;
  for (const Object& object : objects_) {
    if (object.leftover) leftovers.push_back(object.kept);
  }
  return leftovers;
}

void Reconciler::DropLeftovers() {
  std::set<std::string> keys;
  for (const Object& object : objects_) {
    if (object.leftover || keys.contains(object.kept.parent)) keys.insert(object.kept.key);
  }
  Remove(keys);
}

std::vector<KeptObject> Reconciler::Kept() const {
  std::vector<KeptObject> kept;
  for (const Object& object : objects_) kept.push_back(object.kept);
  return kept;
}

Reconciler::Object* Reconciler::Find(const std::string& key) {
  const auto found = byKey_.find(key);
  return found == byKey_.end() ? nullptr : &*found->second;
}

void Reconciler::Append(KeptObject kept, std::set<std::string> disks, bool leftover) {
  std::string key = kept.key;
  objects_.push_back({std::move(kept), std::move(disks), leftover});
  byKey_[std::move(key)] = std::prev(objects_.end());
}

}  // namespace halkernel
