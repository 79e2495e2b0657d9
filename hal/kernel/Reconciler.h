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

/// Brings a device tree to the wanted state, disk by disk: adds, modifies, removes. Parents are
/// added before their children and removed after them. An object shared by several disks, such as
/// the USB device of a reader with several slots, stays until the last of them has gone.
///
/// After a restart: `Restore`; then `Resemble` for each disk; once clients can be notified,
/// `DropLeftovers`, and `Show` for each disk.
///
/// Main thread only.
class Reconciler {
 public:
  /// `onChange` runs whenever `Kept` has changed: before an arrival is announced, and after a
  /// removal or a new mount state has been. Does not own the tree.
  Reconciler(hal::DeviceTree& tree, std::function<void()> onChange)
      : tree_(tree), onChange_(std::move(onChange)) {}

  /// Sets the objects of the disk; none means that the disk is gone. Parents come before their
  /// children, and every parent is among them.
  void Show(const std::string& disk, const std::vector<WantedObject>& wanted);

  /// Reports the mount state of a volume to clients. Does nothing if there is no such object.
  void SetMount(const std::string& key, const VolumeMount& mount);

  /// Takes over silently what was announced before a restart: names, and mount states as clients
  /// know them. Requires: nothing has been shown yet.
  void Restore(const std::vector<KeptObject>& objects);
  /// Gives restored objects their properties, silently. Arrivals, removals and mount states, which
  /// clients have to learn of, are left to `Show`.
  void Resemble(const std::vector<WantedObject>& wanted);
  /// Restored objects that no call of `Resemble` has matched, parents first.
  std::vector<KeptObject> Leftovers() const;
  /// Removes those objects.
  void DropLeftovers();

  /// Every object, parents before their children: what has to survive a restart.
  std::vector<KeptObject> Kept() const;

 private:
  struct Object {
    KeptObject kept;
    std::set<std::string> disks;  // that share it
    bool leftover = false;        // restored, and not matched so far
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
