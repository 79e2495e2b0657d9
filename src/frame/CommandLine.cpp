#include "frame/CommandLine.h"

#include <getopt.h>

#include <algorithm>
#include <cstdlib>
#include <limits>

namespace {

enum tOption : int {
  kPort = 1,
  kDebugLevel,
  kLog,
  kVfatMountOpts,
  kInternalSharePath,
  kPeerMac,
  kContentIdFile,
  kSerialNumberFile,
  kFileTimeout,
  kNfsRoot,
  kDaemon,
};

constexpr option kOptions[] = {
    {"port", required_argument, nullptr, kPort},
    {"debuglevel", required_argument, nullptr, kDebugLevel},
    {"log", required_argument, nullptr, kLog},
    {"vfat-mount-opts", required_argument, nullptr, kVfatMountOpts},
    {"internal-share-path", required_argument, nullptr, kInternalSharePath},
    {"peer-mac", required_argument, nullptr, kPeerMac},
    {"content-id-file", required_argument, nullptr, kContentIdFile},
    {"serial-number-file", required_argument, nullptr, kSerialNumberFile},
    {"file-timeout", required_argument, nullptr, kFileTimeout},
    {"nfs-root", required_argument, nullptr, kNfsRoot},
    {"daemon", no_argument, nullptr, kDaemon},
    {nullptr, 0, nullptr, 0},
};

constexpr unsigned kHighestLogLevel = 4;

/// Clamped to 32 bits, so that a unit and a 64-bit build agree on numbers that are too large.
int32_t Number(const char* text) {
  const long long value = strtoll(text, nullptr, 10);
  return static_cast<int32_t>(std::clamp<long long>(value, std::numeric_limits<int32_t>::min(),
                                                    std::numeric_limits<int32_t>::max()));
}

std::string WithTrailingSlash(std::string path) {
  if (!path.empty() && path.back() != '/') path += '/';
  return path;
}

void Apply(CommandLine& line, int code, const char* argument) {
  switch (static_cast<tOption>(code)) {
    case kPort:
      line.clientPort = Number(argument);
      break;
    case kDebugLevel:
      if (const int level = Number(argument); static_cast<unsigned>(level) <= kHighestLogLevel) {
        line.logLevel = level;
      }
      break;
    case kLog:
      line.logFile = argument;
      break;
    case kVfatMountOpts:
      line.vfatMountOpts = argument;
      break;
    case kInternalSharePath:
      line.internalSharePath = argument;
      break;
    case kPeerMac:
      line.peerMac = argument;
      break;
    case kContentIdFile:
      line.contentIdFile = argument;
      line.filesToWaitFor.emplace_back(argument);
      break;
    case kSerialNumberFile:
      line.serialNumberFile = argument;
      line.filesToWaitFor.emplace_back(argument);
      break;
    case kFileTimeout:
      line.fileTimeoutSeconds = Number(argument);
      break;
    case kNfsRoot:
      line.nfsRoot = WithTrailingSlash(argument);
      break;
    case kDaemon:
      line.daemonise = true;
      break;
  }
}

}  // namespace

std::optional<CommandLine> ParseCommandLine(int argc, char* argv[], std::string& error) {
  CommandLine line;
  optind = 0;  // makes the library start afresh
  opterr = 0;
  for (int code; (code = getopt_long(argc, argv, ":", kOptions, nullptr)) != -1;) {
    if (code == ':') {
      error = std::string("Missing required argument: ") + argv[optind - 1];
      return std::nullopt;
    }
    if (code == '?') {
      error = std::string("Unknown option: ") + argv[optind - 1];
      return std::nullopt;
    }
    Apply(line, code, optarg);
  }
  if (optind < argc) {
    error = "The following were ignored:";
    for (int word = optind; word < argc; ++word) error += std::string(" ") + argv[word];
    return std::nullopt;
  }
  return line;
}
