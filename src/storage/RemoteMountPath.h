#pragma once

#include <string>

/// The directory that a share is mounted in: the NFS root (`gNfsRoot`, else "/mnt/") followed by
/// the share's source, with every slash but the first two replaced by "-". 192.168.1.20:/media/sda1
/// gives /mnt/192.168.1.20:-media-sda1. A root with two slashes or more keeps every source in one
/// step below it; "/" and relative roots leave the source a slash. Any thread.
[[nodiscard]] std::string MakeRemoteMountPath(const std::string& source);
