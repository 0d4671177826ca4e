// Completion of ravoctl's command line in shells. The shells ask ravoctl itself, which knows its
// command line from its declaration.
#include "completion.h"

#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace {

// --- The scripts --------------------------------------------------------------------------------

// bash has "--order=id" as three words, of which the second is "=".
constexpr char bash_script[] = R"sh(# Completion of ravoctl in bash.
_ravoctl() {
    local line
    COMPREPLY=()
    while IFS= read -r line; do
        if [[ $line == @file ]]; then
            compopt -o filenames
            mapfile -t COMPREPLY < <(compgen -f -- "${COMP_WORDS[COMP_CWORD]#=}")
        else
            COMPREPLY+=("${line%%$'\t'*}")
        fi
    done < <("${COMP_WORDS[0]}" __complete "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null)
}
complete -F _ravoctl ravoctl
)sh";

constexpr char zsh_script[] = R"sh(#compdef ravoctl
# Completion of ravoctl in zsh.
_ravoctl() {
    local line
    local -a shown
    for line in ${(f)"$("${words[1]}" __complete "${(@)words[2,CURRENT]}" 2>/dev/null)"}; do
        if [[ $line == @file ]]; then
            compset -P '--*='
            _files
        else
            shown+=("${${line%%$'\t'*}//:/\\:}:${line#*$'\t'}")
        fi
    done
    (( ${#shown} == 0 )) || _describe ravoctl shown
}
if [[ $funcstack[1] == _ravoctl ]]; then _ravoctl "$@"; else compdef _ravoctl ravoctl; fi
)sh";

constexpr char fish_script[] = R"sh(# Completion of ravoctl in fish.
function __ravoctl_words
    set -l words (commandline -opc) (commandline -ct)
    for line in ($words[1] __complete $words[2..] 2>/dev/null)
        if test $line = @file
            __fish_complete_path (string replace -r '^--[^=]*=' '' -- $words[-1])
        else
            echo $line
        end
    end
end
complete -c ravoctl -f -a '(__ravoctl_words)'
)sh";

exit_status print_script(const std::string& shell) {
    const bool is_bash = shell == "bash";
    (void)fputs(is_bash ? bash_script : shell == "zsh" ? zsh_script : fish_script, stdout);
    return done;
}

// --- Where the cursor is ------------------------------------------------------------------------

std::vector<std::string> names_of(const CLI::Option& option) {
    std::vector<std::string> names;
    for (const std::string& name : option.get_lnames()) names.push_back("--" + name);
    for (const std::string& name : option.get_snames()) names.push_back("-" + name);
    return names;
}

// The option with a value that a word is; null: it is none.
const CLI::Option* find_value_option(const CLI::App& app, const std::string& word) {
    for (const CLI::Option* option : app.get_options()) {
        const auto names = names_of(*option);
        if (std::find(names.begin(), names.end(), word) == names.end()) continue;
        return option->get_items_expected_max() > 0 ? option : nullptr;
    }
    return nullptr;
}

std::vector<const CLI::App*> subcommands_of(const CLI::App& app) {
    return app.get_subcommands([](const CLI::App*) { return true; });
}

// Where the words before the one at the cursor lead.
struct place {
    const CLI::App* command;
    const CLI::Option* waiting = nullptr;  // the option whose value comes next
};

place walk(const CLI::App& app, std::span<char* const> words) {
    place at = {&app};
    for (const std::string word : words) {
        if (word == "=") continue;
        if (at.waiting != nullptr) {
            at.waiting = nullptr;
        } else if (word.starts_with('-')) {
            at.waiting = find_value_option(*at.command, word);
        } else {
            for (const CLI::App* subcommand : subcommands_of(*at.command)) {
                if (subcommand->get_name() == word) at.command = subcommand;
            }
        }
    }
    return at;
}

// --- The answer ---------------------------------------------------------------------------------

// What begins like the word at the cursor is printed, with what of the word is no part of it
// before.
struct offer {
    std::string given;
    std::string before = {};

    void print(const std::string& word, std::string help) const {
        if (!word.starts_with(given)) return;
        std::replace(help.begin(), help.end(), '\n', ' ');
        fmt::print("{}{}\t{}\n", before, word, help);
    }
};

// Prints what the value of an option or an argument can be, as far as its type tells: FILE and PATH
// are files, and "FORMAT:{table,json}" is one of the words in the braces.
void print_values(const offer& offered, const CLI::Option& option) {
    const std::string type = option.get_type_name();
    if (type.starts_with("FILE") || type.starts_with("PATH")) {
        fmt::print("@file\n");
        return;
    }
    const size_t begin = type.find('{');
    const size_t end = type.find('}');
    if (begin == std::string::npos || end == std::string::npos) return;
    std::string_view rest = std::string_view(type).substr(begin + 1, end - begin - 1);
    while (!rest.empty()) {
        const size_t comma = std::min(rest.find(','), rest.size());
        offered.print(std::string(rest.substr(0, comma)), "");
        rest.remove_prefix(std::min(comma + 1, rest.size()));
    }
}

void print_options(const offer& offered, const CLI::App& command) {
    for (const CLI::Option* option : command.get_options()) {
        for (const std::string& name : names_of(*option)) {
            offered.print(name, option->get_description());
        }
    }
}

void print_arguments(const offer& offered, const CLI::App& command) {
    for (const CLI::App* subcommand : subcommands_of(command)) {
        offered.print(subcommand->get_name(), subcommand->get_description());
    }
    for (const CLI::Option* option : command.get_options()) {
        if (option->get_positional()) print_values(offered, *option);
    }
}

}  // namespace

exit_status answer_completion(const CLI::App& app, std::span<char* const> words) {
    offer offered = {words.empty() ? "" : words.back()};
    place at = walk(app, words.empty() ? words : words.first(words.size() - 1));
    const size_t equals = offered.given.find('=');
    if (offered.given == "=") {
        offered.given.clear();
    } else if (at.waiting == nullptr && equals != std::string::npos) {
        at.waiting = find_value_option(*at.command, offered.given.substr(0, equals));
        offered.before = offered.given.substr(0, equals + 1);
        offered.given.erase(0, equals + 1);
    }
    if (at.waiting != nullptr) {
        print_values(offered, *at.waiting);
    } else if (offered.given.starts_with('-')) {
        print_options(offered, *at.command);
    } else {
        print_arguments(offered, *at.command);
    }
    return done;
}

void declare_completion(command_line& line) {
    const auto shell = std::make_shared<std::string>();
    CLI::App* completion =
        line.app.add_subcommand("completion", "Print the script that completes ravoctl in a shell");
    completion->add_option("shell", *shell, "The shell")
        ->required()
        ->check(CLI::IsMember({"bash", "zsh", "fish"}));
    line.runs(completion, [shell] { return print_script(*shell); });
}
