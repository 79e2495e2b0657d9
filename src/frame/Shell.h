#pragma once

#include <functional>
#include <string>
#include <string_view>

// Commands for the system's own tools go through the shell. No text from outside may become shell
// syntax: every such text passes through one of the two functions below.

/// The text as one word of a shell command: as it stands when it is made of letters, digits and
/// "_ . / : , + @ % = -" only and begins with none of the last two; in single quotes otherwise.
[[nodiscard]] std::string ShellWord(std::string_view text);

/// The word CLIENT:PATH of an export command. The client is ours and stands as it is, "*" included;
/// a path that is not a plain word puts the whole into quotes.
[[nodiscard]] std::string ShellExportTarget(std::string_view client, std::string_view path);

/// Runs a command through the shell and waits for it. Gives the wait status, -1 when it could not
/// be started. Any thread; blocks for as long as the command takes.
int RunCommand(const std::string& command);

/// What runs the commands of a class: `RunCommand`, or what a test has in its place, which records
/// the command lines and says how they end. Called by whichever thread has something to run.
using tCommandRunner = std::function<int(const std::string& command)>;
