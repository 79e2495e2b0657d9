#include "frame/Shell.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>

namespace {

/// What the shell makes of a word.
std::string SeenByShell(const std::string& word) {
  FILE* const output = popen(("printf %s " + word).c_str(), "re");
  std::string seen;
  for (int character; (character = fgetc(output)) != EOF;) seen += static_cast<char>(character);
  EXPECT_EQ(pclose(output), 0);
  return seen;
}

TEST(ShellWord, LeavesPlainWordsAsTheyStand) {
  for (const char* word : {"/media/sda1", "192.168.1.20:/media/sda1", "a", "A_b.c/d:e,f+g@h%i=j-k",
                           "0", ".", "%", "@"}) {
    EXPECT_EQ(ShellWord(word), word);
  }
}

TEST(ShellWord, QuotesEverythingElse) {
  const struct {
    const char* text;
    const char* word;
  } cases[] = {
      {"", "''"},
      {"a b", "'a b'"},
      {"-o", "'-o'"},
      {"=x", "'=x'"},
      {"$(reboot)", "'$(reboot)'"},
      {"a;b", "'a;b'"},
      {"`x`", "'`x`'"},
      {"~", "'~'"},
      {"it's", R"('it'\''s')"},
      {"'", R"(''\''')"},
      {"*", "'*'"},
      {"a\nb", "'a\nb'"},
      {"\xC3\xA4", "'\xC3\xA4'"},
      {"\\", R"('\')"},
      {"#", "'#'"},
      {"!", "'!'"},
  };
  for (const auto& [text, word] : cases) EXPECT_EQ(ShellWord(text), word) << text;
}

TEST(ShellWord, ReachesTheCommandAsItWasWhateverItHolds) {
  std::string everyByte;
  for (int code = 1; code < 256; ++code) everyByte += static_cast<char>(code);
  for (const std::string& text :
       {everyByte, std::string("'; echo forged; '"), std::string("$HOME `id` \"x\" \\ "),
        std::string("a\n\n"), std::string("''"), std::string("\\'")}) {
    EXPECT_EQ(SeenByShell(ShellWord(text)), text);
  }
}

TEST(ShellExportTarget, IsQuotedAsAWholeWhenThePathIsNotPlain) {
  const struct {
    const char* client;
    const char* path;
    const char* target;
  } cases[] = {
      {"*", "/media/sda1", "*:/media/sda1"},
      {"169.254.3.7", "/media/sda1", "169.254.3.7:/media/sda1"},
      {"*", "/media/my stick", "'*:/media/my stick'"},
      {"*", "/media/a;reboot", "'*:/media/a;reboot'"},
      {"*", "/media/it's", R"('*:/media/it'\''s')"},
      {"*", "", "'*:'"},
  };
  for (const auto& [client, path, target] : cases) {
    EXPECT_EQ(ShellExportTarget(client, path), target);
  }
}

TEST(RunCommand, GivesTheWaitStatus) {
  EXPECT_EQ(RunCommand("true"), 0);
  const int status = RunCommand("exit 7");
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 7);
  EXPECT_EQ(WEXITSTATUS(RunCommand("/nowhere/command 2>/dev/null")), 127);
}

}  // namespace
