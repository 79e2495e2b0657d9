#pragma once

#include <string>

/// Removes the entry at `path` and, when it is a directory, all that it holds, contents first. A
/// symbolic link is removed as a link. The walk never leaves the mount that the directory above
/// `path` lies on: whatever is a mount point, also of the same file system, is neither entered nor
/// emptied, nor is what gets mounted or moved there meanwhile. Only the directory above is found by
/// its path.
///
/// 0 when all is gone. -1 otherwise: at the first entry that cannot be removed, which is warned of
/// as "Failed to remove PATH"; without a message when there is no such path. A mount point inside
/// is passed over, and what fails is the removal of the directory that holds it; one at `path`
/// fails itself. Blocks on the file system. Any thread; depth costs memory, not descriptors.
int RemoveTree(const std::string& path);
