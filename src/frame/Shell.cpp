#include "frame/Shell.h"

#include <algorithm>
#include <cstdlib>

namespace {

bool IsPlainCharacter(char character) {
  return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
         (character >= '0' && character <= '9') ||
         std::string_view("_./:,+@%=-").find(character) != std::string_view::npos;
}

bool IsPlainWord(std::string_view text) {
  return !text.empty() && text.front() != '-' && text.front() != '=' &&
         std::all_of(text.begin(), text.end(), IsPlainCharacter);
}

std::string Quoted(std::string_view text) {
  std::string quoted = "'";
  for (const char character : text) {
    if (character == '\'') {
      quoted += R"('\'')";
    } else {
      quoted += character;
    }
  }
  return quoted + "'";
}

}  // namespace

std::string ShellWord(std::string_view text) {
  return IsPlainWord(text) ? std::string(text) : Quoted(text);
}

std::string ShellExportTarget(std::string_view client, std::string_view path) {
  std::string target(client);
  target.append(":").append(path);
  return IsPlainWord(path) ? target : Quoted(target);
}

int RunCommand(const std::string& command) {
  return system(command.c_str());
}
