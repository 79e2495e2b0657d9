#include "frame/CommandLine.h"

#include <gtest/gtest.h>

#include <initializer_list>

namespace {

/// A command line as main gets it. The words live as long as this object.
class tWords {
 public:
  tWords(std::initializer_list<std::string> words) : m_Words(words) {
    m_Words.insert(m_Words.begin(), "voldrake");
    for (std::string& word : m_Words) m_Pointers.push_back(word.data());
    m_Pointers.push_back(nullptr);
  }

  std::optional<CommandLine> Parse() {
    return ParseCommandLine(static_cast<int>(m_Words.size()), m_Pointers.data(), error);
  }

  std::string error;

 private:
  std::vector<std::string> m_Words;
  std::vector<char*> m_Pointers;
};

/// Parses a line that must be right.
CommandLine Parsed(std::initializer_list<std::string> words) {
  tWords line(words);
  const std::optional<CommandLine> parsed = line.Parse();
  EXPECT_TRUE(parsed) << line.error;
  return parsed.value_or(CommandLine());
}

/// Parses a line that must be wrong; gives the message.
std::string ErrorOf(std::initializer_list<std::string> words) {
  tWords line(words);
  EXPECT_FALSE(line.Parse());
  return line.error;
}

TEST(CommandLine, WithoutWordsEverythingHasItsDefault) {
  const CommandLine line = Parsed({});
  EXPECT_EQ(line.clientPort, 8080);
  EXPECT_FALSE(line.logLevel);
  EXPECT_EQ(line.logFile, "");
  EXPECT_EQ(line.vfatMountOpts, nullptr);
  EXPECT_EQ(line.internalSharePath, "");
  EXPECT_EQ(line.peerMac, "");
  EXPECT_EQ(line.contentIdFile, "");
  EXPECT_EQ(line.serialNumberFile, "");
  EXPECT_TRUE(line.filesToWaitFor.empty());
  EXPECT_EQ(line.fileTimeoutSeconds, 0);
  EXPECT_EQ(line.nfsRoot, "");
  EXPECT_FALSE(line.daemonise);
  EXPECT_EQ(line.question, tQuestion::kNone);
  EXPECT_TRUE(line.warnings.empty());
}

TEST(CommandLine, EveryOptionReachesItsField) {
  tWords words{"--port",
               "9000",
               "--debuglevel",
               "4",
               "--log",
               "/tmp/v.log",
               "--vfat-mount-opts",
               "utf8,umask=0",
               "--internal-share-path",
               "/charts",
               "--peer-mac",
               "00:11:22:33:44:55",
               "--content-id-file",
               "/id",
               "--serial-number-file",
               "/serial",
               "--file-timeout",
               "7",
               "--nfs-root",
               "/srv/nfs/",
               "--daemon"};
  const std::optional<CommandLine> line = words.Parse();
  ASSERT_TRUE(line) << words.error;
  EXPECT_EQ(line->clientPort, 9000);
  EXPECT_EQ(line->logLevel, 4);
  EXPECT_EQ(line->logFile, "/tmp/v.log");
  EXPECT_STREQ(line->vfatMountOpts, "utf8,umask=0");
  EXPECT_EQ(line->internalSharePath, "/charts");
  EXPECT_EQ(line->peerMac, "00:11:22:33:44:55");
  EXPECT_EQ(line->contentIdFile, "/id");
  EXPECT_EQ(line->serialNumberFile, "/serial");
  EXPECT_EQ(line->filesToWaitFor, (std::vector<std::string>{"/id", "/serial"}));
  EXPECT_EQ(line->fileTimeoutSeconds, 7);
  EXPECT_EQ(line->nfsRoot, "/srv/nfs/");
  EXPECT_TRUE(line->daemonise);
}

TEST(CommandLine, AnOptionChangesItsOwnFieldAlone) {
  const struct {
    const char* word;
    const char* fields;  // port, level, log, vfat options, share, peer, identity files, ...
  } cases[] = {
      {"--port=2", "2|-|||||||0||0"},
      {"--debuglevel=2", "8080|2|||||||0||0"},
      {"--log=2", "8080|-|2||||||0||0"},
      {"--vfat-mount-opts=2", "8080|-||2|||||0||0"},
      {"--internal-share-path=2", "8080|-|||2||||0||0"},
      {"--peer-mac=2", "8080|-||||2|||0||0"},
      {"--content-id-file=2", "8080|-|||||2||0||0"},
      {"--serial-number-file=2", "8080|-||||||2|0||0"},
      {"--file-timeout=2", "8080|-|||||||2||0"},
      {"--nfs-root=2", "8080|-|||||||0|2/|0"},
      {"--daemon", "8080|-|||||||0||1"},
  };
  for (const auto& [word, fields] : cases) {
    tWords words{word};
    const std::optional<CommandLine> line = words.Parse();
    ASSERT_TRUE(line) << words.error;
    const std::string level = line->logLevel ? std::to_string(*line->logLevel) : "-";
    const std::string options = line->vfatMountOpts != nullptr ? line->vfatMountOpts : "";
    const std::string shown = std::to_string(line->clientPort) + "|" + level + "|" + line->logFile +
                              "|" + options + "|" + line->internalSharePath + "|" + line->peerMac +
                              "|" + line->contentIdFile + "|" + line->serialNumberFile + "|" +
                              std::to_string(line->fileTimeoutSeconds) + "|" + line->nfsRoot + "|" +
                              (line->daemonise ? "1" : "0");
    EXPECT_EQ(shown, fields) << word;
    const bool isFile = !line->contentIdFile.empty() || !line->serialNumberFile.empty();
    EXPECT_EQ(line->filesToWaitFor.size(), isFile ? 1U : 0U) << word;
  }
}

TEST(CommandLine, AnArgumentMayBeJoinedByAnEqualsSign) {
  tWords words{"--port=9001", "--log=a=b", "--vfat-mount-opts=", "--peer-mac=x y"};
  const std::optional<CommandLine> line = words.Parse();
  ASSERT_TRUE(line) << words.error;
  EXPECT_EQ(line->clientPort, 9001);
  EXPECT_EQ(line->logFile, "a=b");
  EXPECT_STREQ(line->vfatMountOpts, "") << "given and empty differs from not given";
  EXPECT_EQ(line->peerMac, "x y");
}

TEST(CommandLine, AnArgumentThatLooksLikeAnOptionIsStillTheArgument) {
  const CommandLine line = Parsed({"--log", "--daemon"});
  EXPECT_EQ(line.logFile, "--daemon");
  EXPECT_FALSE(line.daemonise);
}

TEST(CommandLine, PortsAreBaseTenAndOtherTextCountsAsZero) {
  const struct {
    const char* text;
    int32_t port;
  } cases[] = {
      {"8081", 8081},
      {"0", 0},
      {"x", 0},
      {"", 0},
      {"12ab", 12},
      {"0x10", 0},
      {"010", 10},
      {" 42", 42},
      {"+5", 5},
      {"-1", -1},
      {"2147483647", 2147483647},
      {"2147483648", 2147483647},
      {"-2147483649", -2147483647 - 1},
      {"99999999999999999999", 2147483647},
  };
  for (const auto& [text, port] : cases) {
    EXPECT_EQ(Parsed({"--port", text}).clientPort, port) << '"' << text << '"';
  }
}

TEST(CommandLine, DebugLevelsOutsideZeroToFourAreIgnored) {
  const struct {
    const char* text;
    std::optional<int> level;
  } cases[] = {
      {"0", 0},
      {"1", 1},
      {"2", 2},
      {"3", 3},
      {"4", 4},
      {"5", std::nullopt},
      {"-1", std::nullopt},
      {"4294967296", std::nullopt},
      {"99999999999999999999", std::nullopt},
      {"x", 0},
      {"", 0},
      {"3x", 3},
  };
  for (const auto& [text, level] : cases) {
    EXPECT_EQ(Parsed({"--debuglevel", text}).logLevel, level) << '"' << text << '"';
  }
}

TEST(CommandLine, AnIgnoredDebugLevelLeavesAnEarlierOneStanding) {
  EXPECT_EQ(Parsed({"--debuglevel", "1", "--debuglevel", "9"}).logLevel, 1);
}

TEST(CommandLine, TheNfsRootEndsInASlashUnlessItIsEmpty) {
  const struct {
    const char* given;
    const char* stored;
  } cases[] = {
      {"/srv/nfs", "/srv/nfs/"},    {"/srv/nfs/", "/srv/nfs/"},
      {"/srv/nfs//", "/srv/nfs//"}, {"/", "/"},
      {"shares", "shares/"},        {"", ""},
  };
  for (const auto& [given, stored] : cases) {
    EXPECT_EQ(Parsed({"--nfs-root", given}).nfsRoot, stored) << '"' << given << '"';
  }
}

TEST(CommandLine, ARepeatedNumberKeepsTheLastValue) {
  EXPECT_EQ(Parsed({"--port", "1", "--port", "9002"}).clientPort, 9002);
  EXPECT_EQ(Parsed({"--debuglevel", "1", "--debuglevel", "2"}).logLevel, 2);
  EXPECT_EQ(Parsed({"--file-timeout=7", "--file-timeout=1"}).fileTimeoutSeconds, 1);
}

TEST(CommandLine, ARepeatedTextOptionKeepsTheLastValue) {
  const CommandLine line = Parsed({"--log", "a", "--nfs-root", "x", "--log", "b", "--nfs-root=y"});
  EXPECT_EQ(line.logFile, "b");
  EXPECT_EQ(line.nfsRoot, "y/");
}

TEST(CommandLine, EveryIdentityFileIsWaitedForInCommandLineOrder) {
  const CommandLine line = Parsed({"--serial-number-file", "s1", "--content-id-file", "c1",
                                   "--content-id-file", "c2", "--serial-number-file", "s2"});
  EXPECT_EQ(line.contentIdFile, "c2");
  EXPECT_EQ(line.serialNumberFile, "s2");
  EXPECT_EQ(line.filesToWaitFor, (std::vector<std::string>{"s1", "c1", "c2", "s2"}));
}

TEST(CommandLine, FileTimeoutsAreTakenAsTheyAre) {
  EXPECT_EQ(Parsed({"--file-timeout", "-3"}).fileTimeoutSeconds, -3);
  EXPECT_EQ(Parsed({"--file-timeout", "soon"}).fileTimeoutSeconds, 0);
}

TEST(CommandLine, AMissingArgumentIsNamedByItsOption) {
  for (const char* option : {"--port", "--debuglevel", "--log", "--vfat-mount-opts",
                             "--internal-share-path", "--peer-mac", "--content-id-file",
                             "--serial-number-file", "--file-timeout", "--nfs-root"}) {
    EXPECT_EQ(ErrorOf({option}), std::string("Missing required argument: ") + option);
    EXPECT_EQ(ErrorOf({"--daemon", option}), std::string("Missing required argument: ") + option);
  }
}

TEST(CommandLine, AnUnknownOptionIsNamedAsAWholeWord) {
  EXPECT_EQ(ErrorOf({"--verbose"}), "Unknown option: --verbose");
  EXPECT_EQ(ErrorOf({"--verbose=3", "--port", "1"}), "Unknown option: --verbose=3");
  EXPECT_EQ(ErrorOf({"--port", "1", "--Port", "2"}), "Unknown option: --Port");
  EXPECT_EQ(ErrorOf({"--daemon=yes"}), "Unknown option: --daemon=yes");
}

TEST(CommandLine, ThereAreNoShortOptions) {
  EXPECT_EQ(ErrorOf({"-p"}), "Unknown option: -p");
  EXPECT_EQ(ErrorOf({"--daemon", "-d"}), "Unknown option: -d");
}

TEST(CommandLine, TheFirstFaultOfALineIsTheOneReported) {
  EXPECT_EQ(ErrorOf({"stray", "--verbose", "--log"}), "Unknown option: --verbose");
  EXPECT_EQ(ErrorOf({"--bogus", "--port"}), "Unknown option: --bogus");
}

TEST(CommandLine, WordsBesideTheOptionsAreListed) {
  EXPECT_EQ(ErrorOf({"extra"}), "The following were ignored: extra");
  EXPECT_EQ(ErrorOf({"--daemon", "extra"}), "The following were ignored: extra");
  EXPECT_EQ(ErrorOf({"a", "--daemon", "b c"}), "The following were ignored: a b c");
  EXPECT_EQ(ErrorOf({"--", "--daemon"}), "The following were ignored: --daemon");
  EXPECT_EQ(ErrorOf({"-"}), "The following were ignored: -");
  EXPECT_EQ(ErrorOf({""}), "The following were ignored: ");
}

TEST(CommandLine, ALoneDoubleDashEndsTheOptions) {
  EXPECT_TRUE(Parsed({"--daemon", "--"}).daemonise);
}

TEST(CommandLine, TheTwoQuestionsAreAskedByTheWholeWord) {
  const struct {
    std::initializer_list<std::string> words;
    tQuestion question;
  } cases[] = {
      {{"--help"}, tQuestion::kHelp},
      {{"--version"}, tQuestion::kVersion},
      {{"--daemon", "--port=1", "--version"}, tQuestion::kVersion},
      {{"--help", "--version"}, tQuestion::kHelp},
      {{"--help", "--bogus"}, tQuestion::kHelp},
      {{"stray", "--help"}, tQuestion::kHelp},
      {{"--log", "--help"}, tQuestion::kNone},
      {{"--log=--version"}, tQuestion::kNone},
  };
  for (const auto& [words, question] : cases) {
    EXPECT_EQ(Parsed(words).question, question) << testing::PrintToString(words);
  }
}

TEST(CommandLine, WhatOnlyResemblesAQuestionIsUnknownAsBefore) {
  for (const char* word : {"--h", "--hel", "--helpful", "--help=", "--help=yes", "--ver",
                           "--version=1", "--versions"}) {
    EXPECT_EQ(ErrorOf({word}), std::string("Unknown option: ") + word);
  }
  EXPECT_EQ(ErrorOf({"--bogus", "--help"}), "Unknown option: --bogus");
  EXPECT_EQ(ErrorOf({"--", "--help"}), "The following were ignored: --help");
  EXPECT_EQ(ErrorOf({"--log", "--help", "-ab"}), "Unknown option: --help")
      << "the word before the parser's next one";
}

TEST(CommandLine, AnAbbreviationIsTheOnlyOptionThatBeginsSo) {
  EXPECT_EQ(Parsed({"--deb=4"}).logLevel, 4);
  tWords words({"--v=utf8"});
  const std::optional<CommandLine> line = words.Parse();
  ASSERT_TRUE(line);
  EXPECT_STREQ(line->vfatMountOpts, "utf8");
  EXPECT_EQ(ErrorOf({"--p=1"}), "Unknown option: --p=1");
}

TEST(CommandLine, TheHelpNamesEveryOption) {
  const std::string help = kHelpText;
  for (const char* option :
       {"--port=", "--debuglevel=", "--log=", "--vfat-mount-opts=", "--internal-share-path=",
        "--peer-mac=", "--content-id-file=", "--serial-number-file=", "--file-timeout=",
        "--nfs-root=", "--daemon ", "--help ", "--version "}) {
    EXPECT_NE(help.find(std::string("\n  ") + option), std::string::npos) << option;
  }
}

TEST(CommandLine, AValueThatCanHardlyBeMeantIsWarnedOf) {
  const struct {
    const char* word;
    const char* warning;  // nullptr: none
  } cases[] = {
      {"--port=1", nullptr},
      {"--port=65535", nullptr},
      {"--port=+8080", nullptr},
      {"--port=0", R"(Option --port: "0" is not a port, which is 1 to 65535)"},
      {"--port=-1", R"(Option --port: "-1" is not a port, which is 1 to 65535)"},
      {"--port=65536", R"(Option --port: "65536" is not a port, which is 1 to 65535)"},
      {"--port=80800", R"(Option --port: "80800" is not a port, which is 1 to 65535)"},
      {"--port=abc", R"(Option --port: "abc" is not a number, using 0)"},
      {"--port=", R"(Option --port: "" is not a number, using 0)"},
      {"--port=80 ", R"(Option --port: "80 " is not a number, using 80)"},
      {"--port=8\n0", R"(Option --port: "8?0" is not a number, using 8)"},
      {"--file-timeout=0", nullptr},
      {"--file-timeout=-1", nullptr},
      {"--file-timeout=5s", R"(Option --file-timeout: "5s" is not a number, using 5)"},
      {"--file-t=soon", R"(Option --file-timeout: "soon" is not a number, using 0)"},
      {"--peer-mac=", nullptr},
      {"--peer-mac=0:1:2:a:B:ff", nullptr},
      {"--peer-mac=xyz",
       R"(Option --peer-mac: "xyz" is not a hardware address, no unit is the peer)"},
      {"--peer-mac=00:11:22:33:44",
       R"(Option --peer-mac: "00:11:22:33:44" is not a hardware address, no unit is the peer)"},
      {"--debuglevel=9", nullptr},
  };
  for (const auto& [word, warning] : cases) {
    std::vector<std::string> expected;
    if (warning != nullptr) expected.emplace_back(warning);
    EXPECT_EQ(Parsed({word}).warnings, expected) << word;
  }
}

TEST(CommandLine, ParsingStartsAfreshEachTime) {
  EXPECT_EQ(ErrorOf({"one", "two", "--port"}), "Missing required argument: --port");
  EXPECT_EQ(Parsed({"--port", "1"}).clientPort, 1);
}

}  // namespace
