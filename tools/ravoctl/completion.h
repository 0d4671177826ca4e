// Completion of ravoctl's command line in shells. The shells ask ravoctl itself, which knows its
// command line from its declaration.
#pragma once

#include <span>

#include "command_line.h"

// The first argument with which a shell asks what could stand at the cursor. The words behind it
// are those of the command line behind the program's name; the last one is to be completed.
inline constexpr char completion_question[] = "__complete";

// Prints a line for each word that can stand there, with a tab and its help behind it, or
// "@file" for the names of files.
exit_status answer_completion(const CLI::App& app, std::span<char* const> words);

// The noun that prints the script which has a shell ask.
void declare_completion(command_line& line);
