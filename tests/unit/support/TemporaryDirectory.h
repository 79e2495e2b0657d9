#pragma once

#include <string>
#include <string_view>

/// A directory of the test's own, removed with all it holds at the end of its life. Links are
/// removed as links.
class tTemporaryDirectory {
 public:
  tTemporaryDirectory();
  ~tTemporaryDirectory();
  tTemporaryDirectory(const tTemporaryDirectory&) = delete;
  tTemporaryDirectory& operator=(const tTemporaryDirectory&) = delete;

  /// The path of an entry; the directory's own without a name.
  [[nodiscard]] std::string Path(std::string_view name = "") const;

  /// Makes a file with this content, and the directories above it. Returns its path.
  std::string Write(std::string_view name, std::string_view content) const;

  /// Makes a directory and those above it. Returns its path.
  std::string MakeDirectory(std::string_view name) const;

  /// Makes a symbolic link. Returns its path.
  std::string Link(std::string_view name, const std::string& target) const;

  /// True when an entry of that name stands there, be it a link that leads nowhere.
  [[nodiscard]] bool Holds(std::string_view name) const;

 private:
  std::string m_Path;
};
