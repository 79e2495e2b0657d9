#pragma once

#include <string>

/// The directory that a share is mounted in: the NFS root (`gNfsRoot`, else "/mnt/") followed by
/// the share's source, with every slash but the first two replaced by "-". 192.168.1.20:/media/sda1
/// gives /mnt/192.168.1.20:-media-sda1. Since nothing after the second slash is a path step, no
/// source leads out of the root. Any thread.
[[nodiscard]] std::string MakeRemoteMountPath(const std::string& source);
