#pragma once

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "hal/face/DeviceTree.h"

namespace halsim {

/// The words KEY=VALUE, KEY and ROLE/KEY=TYPE:VALUE of a plug command. Every operation throws
/// CommandError on an invalid value.
class PlugArguments {
 public:
  explicit PlugArguments(const std::vector<std::string>& words);

  std::optional<std::string> Text(const std::string& key);
  /// A number within both limits.
  std::optional<int> Number(const std::string& key, int least, int most);
  std::optional<std::uint64_t> Size(const std::string& key);
  /// Whether the word, without "=", was given.
  bool Flag(const std::string& key);

  /// Role and edit, in their order.
  const std::vector<std::pair<std::string, hal::PropertyEdits::value_type>>& Overrides() const {
    return overrides_;
  }

  /// Throws if a key was given that no operation has asked for.
  void CheckAllUsed() const;

 private:
  std::map<std::string, std::string> texts_;
  std::map<std::string, bool> flags_;
  std::map<std::string, bool> used_;
  std::vector<std::pair<std::string, hal::PropertyEdits::value_type>> overrides_;
};

/// Reads KEY=TYPE:VALUE or KEY=unset.
hal::PropertyEdits::value_type ParseEdit(const std::string& word);

}  // namespace halsim
