// The command line: the unit of each noun declares its commands on it, each with what runs it.
//
// CLI11 does the work. It is not seen from here, because every unit that sees it takes seconds more
// to compile.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "failure.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

// An option or an argument of a command. A name for it, which may be copied.
class cli_option {
  public:
    explicit cli_option(CLI::Option* named) : option_(named) {}

    cli_option type_name(const std::string& name) const;    // of its value, for the help
    cli_option option_text(const std::string& text) const;  // all that the help says behind it
    cli_option shows_default() const;
    cli_option required() const;
    cli_option expected(int least, int most) const;  // so many values
    cli_option one_value_each() const;               // when it is given several times
    template <class Number>                          // int, int64_t, double
    cli_option between(Number least, Number most) const;
    cli_option one_of(const std::vector<std::string>& words) const;
    cli_option excludes(cli_option other) const;

    // The values as they were typed; none when it was not given.
    std::vector<std::string> words() const;

  private:
    friend class cli_command;
    CLI::Option* option_;
};

// A noun, or a command below one. A name for it, which may be copied.
class cli_command {
  public:
    explicit cli_command(CLI::App* named) : app_(named) {}

    cli_command add_subcommand(const std::string& name, const std::string& help) const;
    // Values are texts, numbers, and lists of either; the definition names the types. What is not
    // given stays as it is, and so does the value's place: it has to live as long as this.
    template <class Value>
    cli_option add_option(const std::string& names, Value& value, const std::string& help) const;
    // Names do what they stand for: a text that they are given, or a switch.
    cli_option add_option(const std::string& names,
                          const std::function<void(const std::string&)>& set,
                          const std::string& help) const;
    cli_option add_flag(const std::string& names, bool& value, const std::string& help) const;
    cli_option add_flag(const std::string& names, std::function<void()> set,
                        const std::string& help) const;
    // Any number of words, exactly as they are typed.
    cli_option add_words(const std::string& name, const std::string& help) const;

    void footer(const std::string& text) const;
    void require_subcommand(size_t least, size_t most) const;
    void excludes(cli_option option) const;
    std::vector<cli_command> subcommands() const;

  private:
    friend class command_line;
    CLI::App* app_;
};

// What the user asks for is kept by the function that runs the command.
using runner = std::function<exit_status()>;

class command_line {
  public:
    command_line();
    ~command_line();
    command_line(const command_line&) = delete;
    command_line& operator=(const command_line&) = delete;

    CLI::App& app() { return *app_; }
    cli_command add_subcommand(const std::string& name, const std::string& help) {
        return cli_command(app_.get()).add_subcommand(name, help);
    }
    void runs(cli_command given, runner run) { runners_[given.app_] = std::move(run); }

    // What runs the innermost command that was given; none when nothing was given.
    runner chosen() const;

  private:
    std::unique_ptr<CLI::App> app_;
    std::map<const CLI::App*, runner> runners_;
};
