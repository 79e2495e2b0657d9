#pragma once

#include <optional>
#include <string>
#include <vector>

// What must outlive a restart of the service. The file:
//
//   [state]       version=1  directories=NAME;NAME;
//   [object 0]    key=  parent=  name=
//                 and for a volume node=/dev/sda1  mounted=true  read-only=false  place=/media/x
//   [object 1]    ...
//
// Parents stand before their children. An object stands in the file from before its arrival is
// announced until after its removal is: a restart in between announces no arrival twice and forgets
// no removal.

namespace halkernel {

/// The mount state of a volume, as clients are told.
struct VolumeMount {
  std::string place;  // empty while not mounted
  bool mounted = false;
  bool readOnly = false;

  friend bool operator==(const VolumeMount&, const VolumeMount&) = default;
};

struct KeptObject {
  std::string key;     // what the object stands for; see WantedObject
  std::string parent;  // the parent's key; empty: the root
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

/// The file's content. Requires: keys and names are printable ASCII; other texts may be anything
/// without a zero byte.
std::string FormatState(const State& state);

struct ParsedState {
  std::optional<State> state;
  std::string fault;  // why there is none
};

/// Reads a file's content, which may be anything. A content of another version, without a needed
/// value, with an impossible name, path or directory, or one that names an object twice or before
/// its parent gives no state, and a reason.
ParsedState ParseState(const std::string& content);

/// The file itself. Main thread only; blocks for as long as a file in memory takes.
class StateFile {
 public:
  explicit StateFile(std::string path) : path_(std::move(path)) {}

  /// Nothing when there is no file, or none that can be used, which is logged.
  std::optional<State> Read() const;
  /// Replaces the file as a whole, unless it holds just that. A failure is logged once until a
  /// write succeeds.
  void Write(const State& state);

 private:
  const std::string path_;
  std::string written_;
  bool failing_ = false;
};

}  // namespace halkernel
