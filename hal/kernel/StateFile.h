#pragma once

#include <optional>
#include <string>
#include <vector>

// The state that has to survive a restart of the service. The file:
//
//   [state]       version=1  directories=NAME;NAME;
//   [object 0]    key=  parent=  name=
//                 and for a volume node=/dev/sda1  mounted=true  read-only=false  place=/media/x
//   [object 1]    ...
//
// Parents come before their children. An object is in the file from before its arrival is announced
// until after its removal is: a restart in between repeats no arrival and misses no removal.

namespace halkernel {

/// The mount state of a volume, as announced to clients.
struct VolumeMount {
  std::string place;  // empty while not mounted
  bool mounted = false;
  bool readOnly = false;

  friend bool operator==(const VolumeMount&, const VolumeMount&) = default;
};

struct KeptObject {
  std::string key;     // the object's identity; see WantedObject
  std::string parent;  // the parent's key; empty for the root
  std::string name;    // of the object, without the prefix
  std::string node;    // of a volume; empty for every other object
  VolumeMount mount;

  friend bool operator==(const KeptObject&, const KeptObject&) = default;
};

struct State {
  std::vector<KeptObject> objects;
  std::vector<std::string> directories;  // names under /media, made by the service

  friend bool operator==(const State&, const State&) = default;
};

/// The file's content. Requires: keys and names are printable ASCII; other texts may contain
/// anything but a zero byte.
std::string FormatState(const State& state);

struct ParsedState {
  std::optional<State> state;
  std::string fault;  // why there is no state
};

/// Parses a file's content, which may be anything. Returns no state, but a reason, if the content
/// is of another version, lacks a value, has an invalid name, path or directory, or lists an object
/// twice or before its parent.
ParsedState ParseState(const std::string& content);

/// The file itself. Main thread only; blocks no longer than access to a file in memory takes.
class StateFile {
 public:
  explicit StateFile(std::string path) : path_(std::move(path)) {}

  /// Returns nullopt if there is no file, or none that can be used; logs the latter.
  std::optional<State> Read() const;
  /// Replaces the file as a whole, unless it has that content already. Logs a failure once until a
  /// write succeeds.
  void Write(const State& state);

 private:
  const std::string path_;
  std::string written_;
  bool failing_ = false;
};

}  // namespace halkernel
