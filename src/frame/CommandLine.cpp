#include "frame/CommandLine.h"

#include <getopt.h>
#include <netinet/ether.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <string_view>

#include "frame/Text.h"

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
constexpr int32_t kHighestPort = 65535;

/// Clamped to 32 bits, so that a unit and a 64-bit build agree on numbers that are too large.
/// `end` receives where the number ends, which is at the beginning of a text that is none.
int32_t Number(const char* text, char** end = nullptr) {
  const long long value = strtoll(text, end, 10);
  return static_cast<int32_t>(std::clamp<long long>(value, std::numeric_limits<int32_t>::min(),
                                                    std::numeric_limits<int32_t>::max()));
}

/// `text` is what was given to the option, `complaint` what is wrong with it.
void Warn(CommandLine& line, const char* name, const char* text, const std::string& complaint) {
  line.warnings.push_back(std::string("Option --") + name + ": \"" + Printable(text) + "\" " +
                          complaint);
}

int32_t NumberOrWarning(CommandLine& line, const char* name, const char* text) {
  char* end = nullptr;
  const int32_t value = Number(text, &end);
  if (end == text || *end != '\0') {
    Warn(line, name, text, "is not a number, using " + std::to_string(value));
  }
  return value;
}

void TakePort(CommandLine& line, const char* name, const char* text) {
  const size_t warnings = line.warnings.size();
  line.clientPort = NumberOrWarning(line, name, text);
  const bool isPort = line.clientPort >= 1 && line.clientPort <= kHighestPort;
  if (!isPort && line.warnings.size() == warnings) {
    Warn(line, name, text, "is not a port, which is 1 to 65535");
  }
}

void TakePeerMac(CommandLine& line, const char* name, const char* text) {
  line.peerMac = text;
  ether_addr parsed{};
  if (!line.peerMac.empty() && ether_aton_r(text, &parsed) == nullptr) {
    Warn(line, name, text, "is not a hardware address, no unit is the peer");
  }
}

std::string WithTrailingSlash(std::string path) {
  if (!path.empty() && path.back() != '/') path += '/';
  return path;
}

/// `chosen` is the option's row in the table.
void Apply(CommandLine& line, const option& chosen, const char* argument) {
  switch (static_cast<tOption>(chosen.val)) {
    case kPort:
      TakePort(line, chosen.name, argument);
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
      TakePeerMac(line, chosen.name, argument);
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
      line.fileTimeoutSeconds = NumberOrWarning(line, chosen.name, argument);
      break;
    case kNfsRoot:
      line.nfsRoot = WithTrailingSlash(argument);
      break;
    case kDaemon:
      line.daemonise = true;
      break;
  }
}

/// The question that an unknown long option asks. The two are not in the table, where they would
/// take abbreviations from the options: "--v" is "--vfat-mount-opts".
tQuestion Question(std::string_view word) {
  if (word == "--help") return tQuestion::kHelp;
  if (word == "--version") return tQuestion::kVersion;
  return tQuestion::kNone;
}

}  // namespace

const char kHelpText[] =
    "Usage: voldrake [OPTION]...\n"
    "Storage-volume daemon of a display unit.\n"
    "\n"
    "  --port=NUMBER               TCP port of the display application on 127.0.0.1; 8080\n"
    "  --debuglevel=0..4           how much to log; 3\n"
    "  --log=FILE                  log file instead of syslog\n"
    "  --vfat-mount-opts=OPTIONS   more mount options for vfat volumes\n"
    "  --internal-share-path=DIRECTORY\n"
    "                              internal disk to offer to other units\n"
    "  --peer-mac=ADDRESS          hardware address of the peer, which may write\n"
    "  --content-id-file=FILE      file whose first line is the content id\n"
    "  --serial-number-file=FILE   file whose first line is the serial number\n"
    "  --file-timeout=SECONDS      how long to wait for these files at start-up; 0\n"
    "  --nfs-root=DIRECTORY        where other units' shares are mounted; /mnt/\n"
    "  --daemon                    detach into the background\n"
    "  --help                      show this and exit\n"
    "  --version                   show the version and exit\n"
    "\n"
    "SIGTERM stops it, SIGHUP marks the head of a new log file, SIGUSR1 reports every volume\n"
    "again. See voldrake(8).\n";

std::optional<CommandLine> ParseCommandLine(int argc, char* argv[], std::string& error) {
  CommandLine line;
  optind = 0;  // makes the library start afresh
  opterr = 0;
  int row = 0;
  for (int code; (code = getopt_long(argc, argv, ":", kOptions, &row)) != -1;) {
    if (code == ':') {
      error = std::string("Missing required argument: ") + argv[optind - 1];
      return std::nullopt;
    }
    if (code == '?') {
      // A known option with a value too many, or a short one, leaves its code.
      if (optopt == 0) line.question = Question(argv[optind - 1]);
      if (line.question != tQuestion::kNone) return line;
      error = std::string("Unknown option: ") + argv[optind - 1];
      return std::nullopt;
    }
    Apply(line, kOptions[row], optarg);
  }
  if (optind < argc) {
    error = "The following were ignored:";
    for (int word = optind; word < argc; ++word) error += std::string(" ") + argv[word];
    return std::nullopt;
  }
  return line;
}
