#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "frame/FileDescriptor.h"

// File-system helpers without state. Any thread may call them; all block on the file system.

/// How a recursive removal treats symbolic links to directories.
enum class tLinkPolicy {
  kFollow,       ///< what the links lead to is emptied too
  kDoNotFollow,  ///< a link is removed as a link; nothing outside the tree is touched
};

/// Removes a directory.
///
/// Not recursive: 0 when it is gone (a missing one counts), -1 otherwise with the warning
/// "Failed to remove PATH: REASON".
/// Recursive: removes the tree, contents first, without crossing into another mounted file system;
/// where links are not followed, without crossing any mount point, see `RemoveTree`. 0 when all is
/// gone; otherwise non-zero at the first entry that cannot be removed, which is warned of by name.
/// A missing path gives -1 without a message.
int RemoveDirectory(const std::string& path, bool recursive,
                    tLinkPolicy links = tLinkPolicy::kFollow);

/// The names of a directory's entries, "." and ".." not among them, in no order. Empty for one that
/// cannot be read.
[[nodiscard]] std::vector<std::string> DirectoryEntries(const std::string& directory);
/// The same of an open directory, from where its descriptor stands; the descriptor is closed.
[[nodiscard]] std::vector<std::string> DirectoryEntries(tFileDescriptor directory);

/// True when both paths exist and lie on the same device. Links are followed.
[[nodiscard]] bool IsSameDevice(const std::string& left, const std::string& right);

/// Modification time in seconds since the epoch; 0 for an empty path and for a file that cannot be
/// examined.
[[nodiscard]] time_t GetFileModifiedTime(const std::string& path);

/// The first `maxBytes` bytes of a file. Nothing when it cannot be opened; what could be read when
/// reading fails later, so a directory gives an empty text. Never waits for a writer of a FIFO.
/// `error`, where one is given, becomes the number of the error, 0 without one.
[[nodiscard]] std::optional<std::string> ReadFile(const std::string& path, size_t maxBytes,
                                                  int* error = nullptr);

/// The first line of an identity file: at most 511 characters of it (cut at a zero byte), without
/// the white space around them. Empty when the file is missing, unreadable or empty. `error` as
/// that of `ReadFile`.
[[nodiscard]] std::string ReadFirstLine(const std::string& path, int* error = nullptr);
