// A command line of any words ends in settings that can be used, or in a reason.

#include <sstream>
#include <vector>

#include "Source.h"
#include "frame/CommandLine.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<std::string> words{"voldrake"};
  std::istringstream input(Source(data, size).Rest());
  for (std::string word; std::getline(input, word);) words.emplace_back(word.c_str());
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);

  std::string error;
  const auto line = ParseCommandLine(static_cast<int>(words.size()), argv.data(), error);
  Require(line.has_value() == error.empty());
  if (!line) return 0;
  Require(!line->logLevel || (*line->logLevel >= 0 && *line->logLevel <= 4));
  Require(line->nfsRoot.empty() || line->nfsRoot.back() == '/');
  const bool named = !line->contentIdFile.empty() || !line->serialNumberFile.empty();
  Require(!named || !line->filesToWaitFor.empty());
  Require(line->vfatMountOpts == nullptr || std::string(line->vfatMountOpts).size() <= size);
  return 0;
}
