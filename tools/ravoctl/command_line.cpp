// Commands and options handed on to CLI11.
#include "command_line.h"

#include <CLI/CLI.hpp>
#include <cmath>
#include <optional>
#include <utility>

// ---- Options -----------------------------------------------------------------------------------

cli_option cli_option::type_name(const std::string& name) const {
    return cli_option(option_->type_name(name));
}
cli_option cli_option::option_text(const std::string& text) const {
    return cli_option(option_->option_text(text));
}
cli_option cli_option::shows_default() const { return cli_option(option_->capture_default_str()); }
cli_option cli_option::required() const { return cli_option(option_->required()); }
cli_option cli_option::expected(int least, int most) const {
    return cli_option(option_->expected(least, most));
}
cli_option cli_option::one_value_each() const {
    return cli_option(option_->allow_extra_args(false));
}
// What is no number at all, nan, lies between any two for CLI::Range.
template <class Number>
cli_option cli_option::between(Number least, Number most) const {
    const auto is_no_number = [](const std::string& text) {
        Number number = {};
        const bool is_read = CLI::detail::lexical_cast(text, number);
        return is_read && std::isnan(static_cast<double>(number)) ? text + " is no number"
                                                                  : std::string();
    };
    return cli_option(option_->check(CLI::Range(least, most))->check(is_no_number));
}
template cli_option cli_option::between(int, int) const;
template cli_option cli_option::between(int64_t, int64_t) const;
template cli_option cli_option::between(double, double) const;
cli_option cli_option::one_of(const std::vector<std::string>& words) const {
    return cli_option(option_->check(CLI::IsMember(words)));
}
cli_option cli_option::excludes(cli_option other) const {
    return cli_option(option_->excludes(other.option_));
}
std::vector<std::string> cli_option::words() const {
    return option_->count() == 0 ? std::vector<std::string>() : option_->results();
}

// ---- Commands ----------------------------------------------------------------------------------

cli_command cli_command::add_subcommand(const std::string& name, const std::string& help) const {
    return cli_command(app_->add_subcommand(name, help));
}

template <class Value>
cli_option cli_command::add_option(const std::string& names, Value& value,
                                   const std::string& help) const {
    return cli_option(app_->add_option(names, value, help));
}
template cli_option cli_command::add_option(const std::string&, std::string&,
                                            const std::string&) const;
template cli_option cli_command::add_option(const std::string&, std::optional<std::string>&,
                                            const std::string&) const;
template cli_option cli_command::add_option(const std::string&, std::optional<uint64_t>&,
                                            const std::string&) const;
template cli_option cli_command::add_option(const std::string&, std::vector<std::string>&,
                                            const std::string&) const;
template cli_option cli_command::add_option(const std::string&, std::vector<int64_t>&,
                                            const std::string&) const;
template cli_option cli_command::add_option(const std::string&, int&, const std::string&) const;
template cli_option cli_command::add_option(const std::string&, double&, const std::string&) const;
template cli_option cli_command::add_option(const std::string&, int64_t&, const std::string&) const;

cli_option cli_command::add_option(const std::string& names,
                                   const std::function<void(const std::string&)>& set,
                                   const std::string& help) const {
    return cli_option(app_->add_option_function(names, set, help));
}
cli_option cli_command::add_flag(const std::string& names, bool& value,
                                 const std::string& help) const {
    return cli_option(app_->add_flag(names, value, help));
}
cli_option cli_command::add_flag(const std::string& names, std::function<void()> set,
                                 const std::string& help) const {
    return cli_option(app_->add_flag_callback(names, std::move(set), help));
}

// Their number has an end, because CLI11 would split a word such as "[a,b]" if it had none.
cli_option cli_command::add_words(const std::string& name, const std::string& help) const {
    constexpr int most_words = 1 << 30;
    return cli_option(app_->add_option(name, help)
                          ->expected(most_words)
                          ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
                          ->option_text("TEXT ..."));
}

void cli_command::footer(const std::string& text) const { app_->footer(text); }
void cli_command::require_subcommand(size_t least, size_t most) const {
    app_->require_subcommand(least, most);
}
void cli_command::excludes(cli_option option) const { app_->excludes(option.option_); }
std::vector<cli_command> cli_command::subcommands() const {
    std::vector<cli_command> found;
    for (CLI::App* each : app_->get_subcommands({})) found.emplace_back(each);
    return found;
}

// ---- The whole ---------------------------------------------------------------------------------

command_line::command_line() : app_(std::make_unique<CLI::App>()) {}
command_line::~command_line() = default;

runner command_line::chosen() const {
    const CLI::App* given = app_.get();
    while (!given->get_subcommands().empty()) given = given->get_subcommands().back();
    const auto found = runners_.find(given);
    return found == runners_.end() ? runner() : found->second;
}
