#pragma once

#include <functional>
#include <list>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "hal/face/DeviceTree.h"
#include "hal/kernel/Media.h"
#include "hal/kernel/StateFile.h"

namespace halkernel {

/// Brings a device tree to what is wanted, disk by disk: adds, modifies, removes. Parents come
/// before their children and go after them. An object that several disks want, such as the USB
/// device of a reader with several slots, stays until the last of them has gone.
///
/// After a restart: `Restore`; then `Resemble` for each disk; once clients can be told,
/// `DropLeftovers` and `Show` for each disk.
///
/// Main thread only.
class Reconciler {
 public:
  /// `onChange` runs whenever `Kept` has changed: before an arrival is announced, after a removal
  /// or another mount state was. The tree is not owned.
  Reconciler(hal::DeviceTree& tree, std::function<void()> onChange)
      : tree_(tree), onChange_(std::move(onChange)) {}

  /// From now on these are the objects of the disk; none: the disk is gone. Parents stand before
  /// their children, and every parent is among them.
  void Show(const std::string& disk, const std::vector<WantedObject>& wanted);

  /// Tells clients the mount state of a volume. Nothing happens when there is no such object.
  void SetMount(const std::string& key, const VolumeMount& mount);

  /// Takes over, silently, what was announced before a restart: names, and mount states as clients
  /// know them. Requires: nothing was shown yet.
  void Restore(const std::vector<KeptObject>& objects);
  /// Gives restored objects their properties, silently. What clients have to be told, arrivals,
  /// removals and mount states, is left to `Show`.
  void Resemble(const std::vector<WantedObject>& wanted);
  /// Restored objects that nothing has resembled, parents first.
  std::vector<KeptObject> Leftovers() const;
  /// Removes them.
  void DropLeftovers();

  /// Every object, parents before their children: what a restart has to know.
  std::vector<KeptObject> Kept() const;

 private:
  struct Object {
    KeptObject kept;
    std::set<std::string> disks;  // that want it
    bool leftover = false;        // was restored, and nothing has resembled it
  };

  hal::Device Build(const WantedObject& wanted) const;
  Object* Find(const std::string& key);
  void Append(KeptObject kept, std::set<std::string> disks, bool leftover);
  std::set<std::string> Unwanted(const std::string& disk, const std::vector<WantedObject>& wanted);
  void Remove(const std::set<std::string>& keys);
  void Add(const std::string& disk, const std::vector<const WantedObject*>& wanted);
  void Modify(const Object& object, const WantedObject& wanted);

  hal::DeviceTree& tree_;
  const std::function<void()> onChange_;
  std::list<Object> objects_;  // parents before their children
  std::unordered_map<std::string, std::list<Object>::iterator> byKey_;
};

}  // namespace halkernel
