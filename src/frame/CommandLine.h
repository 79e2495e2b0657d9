#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// What the command line wants to know instead of a daemon.
enum class tQuestion { kNone, kHelp, kVersion };

/// What the command line asks for. Texts are empty and the optional ones unset when not given.
struct CommandLine {
  tQuestion question = tQuestion::kNone;  ///< the words behind it were not looked at
  int32_t clientPort = 8080;
  std::optional<int> logLevel;  ///< 0..4; unset when absent or out of range
  std::string logFile;
  const char* vfatMountOpts = nullptr;  ///< points into argv
  std::string internalSharePath;
  std::string peerMac;
  std::string contentIdFile;
  std::string serialNumberFile;
  std::vector<std::string> filesToWaitFor;  ///< every identity file named, in command-line order
  int fileTimeoutSeconds = 0;
  std::string nfsRoot;  ///< ends in "/" unless empty
  bool daemonise = false;
  std::vector<std::string> warnings;  ///< a line to log for each value that can hardly be meant
};

/// What "--help" prints.
extern const char kHelpText[];

/// Reads the options. Long options only, an argument joined by "=" or as the next word. Numbers are
/// base 10; text that is no number counts as 0. An option may be cut short while it stays the only
/// one, but not the two questions "--help" and "--version". Words may be moved within `argv`.
/// Nothing when the line is wrong; `error` then holds the line to print, without a line end.
[[nodiscard]] std::optional<CommandLine> ParseCommandLine(int argc, char* argv[],
                                                          std::string& error);
