#pragma once

#include <string>

/// What one data-source message says. A removal uses only the path.
struct DataSourceInfo {
  bool arrival = false;     ///< the volume arrived; else it went away
  bool memoryCard = false;  ///< an SD/MMC card; else a disk. The key is then its CID
  bool fixed = false;       ///< not removable
  bool remote = false;      ///< a share of another unit
  bool readOnly = false;
  std::string path{};          ///< where the application finds the volume
  std::string friendlyName{};  ///< for people; may come from the network
  std::string key{};           ///< for programs; a card's CID as 32 hexadecimal digits
  std::string contentId{};
  std::string serialNumber{};
};
