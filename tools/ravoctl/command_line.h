// The command line: the unit of each noun declares its commands on it, each with what runs it.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <map>

#include "failure.h"

// What the user asks for is kept by the function that runs the command.
using runner = std::function<exit_status()>;

class command_line {
  public:
    CLI::App app;

    void runs(const CLI::App* command, runner run) { runners_[command] = std::move(run); }

    // What runs the innermost command that was given; none when nothing was given.
    runner chosen() const {
        const CLI::App* command = &app;
        while (!command->get_subcommands().empty()) command = command->get_subcommands().back();
        const auto found = runners_.find(command);
        return found == runners_.end() ? runner() : found->second;
    }

  private:
    std::map<const CLI::App*, runner> runners_;
};
