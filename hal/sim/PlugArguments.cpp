#include "hal/sim/PlugArguments.h"

#include "hal/face/Text.h"
#include "hal/sim/CommandError.h"
#include "hal/sim/PropertyText.h"
#include "hal/sim/Quoting.h"

namespace halsim {

hal::PropertyEdits::value_type ParseEdit(const std::string& word) {
  const std::size_t equals = word.find('=');
  if (equals == std::string::npos || equals == 0) {
    throw CommandError(Quote(word) + " is not KEY=TYPE:VALUE");
  }
  const std::string value = word.substr(equals + 1);
  if (value == "unset") return {word.substr(0, equals), std::nullopt};
  return {word.substr(0, equals), ParsePropertyValue(value)};
}

PlugArguments::PlugArguments(const std::vector<std::string>& words) {
  for (const std::string& word : words) {
    const std::size_t equals = word.find('=');
    const std::string key = word.substr(0, equals);
    const std::size_t slash = key.find('/');
    if (slash != std::string::npos) {
      overrides_.emplace_back(key.substr(0, slash), ParseEdit(word.substr(slash + 1)));
      continue;
    }
    if (used_.contains(key)) throw CommandError(Quote(key) + " is given twice");
    used_[key] = false;
    if (equals == std::string::npos) {
      flags_[key] = true;
    } else {
      texts_[key] = word.substr(equals + 1);
    }
  }
}

std::optional<std::string> PlugArguments::Text(const std::string& key) {
  const auto found = texts_.find(key);
  if (found == texts_.end()) return std::nullopt;
  used_[key] = true;
  return found->second;
}

std::optional<int> PlugArguments::Number(const std::string& key, int least, int most) {
  const std::optional<std::string> text = Text(key);
  if (!text) return std::nullopt;
  const std::optional<int> number = hal::ParseNumber<int>(*text);
  if (!number || *number < least || *number > most) {
    throw CommandError(key + "=" + *text + " is not a number from " + std::to_string(least) +
                       " to " + std::to_string(most));
  }
  return number;
}

std::optional<std::uint64_t> PlugArguments::Size(const std::string& key) {
  const std::optional<std::string> text = Text(key);
  if (!text) return std::nullopt;
  const std::optional<std::uint64_t> size = hal::ParseNumber<std::uint64_t>(*text);
  if (!size) throw CommandError(key + "=" + *text + " is not a size in bytes");
  return size;
}

bool PlugArguments::Flag(const std::string& key) {
  if (!flags_.contains(key)) return false;
  used_[key] = true;
  return true;
}

void PlugArguments::CheckAllUsed() const {
  for (const auto& [key, used] : used_) {
    if (!used) throw CommandError("unknown key " + Quote(key));
  }
}

}  // namespace halsim
