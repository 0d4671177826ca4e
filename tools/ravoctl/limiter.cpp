// The login-attempt limiter's settings: shown as the daemon gets them, and changed in their file.
#include "limiter.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <memory>
#include <new>
#include <system_error>
#include <vector>

#include "new_file.h"
#include "output.h"
#include "settings.h"
#include "text.h"

namespace {

constexpr int64_t largest_limit = 1'000'000;
constexpr double longest_block = 10.0 * 365 * 24 * 60;  // minutes

// --- The change ---------------------------------------------------------------------------------

struct wanted_settings {
    std::optional<bool> enable = {};
    std::optional<int64_t> limit = {};
    std::optional<double> minutes = {};
};

bool parse_switch(const std::string& text) {
    if (text == "on" || text == "true") return true;
    if (text == "off" || text == "false") return false;
    throw usage_error(fmt::format("enable: \"{}\" is neither on nor off", escaped(text)));
}

template <class Number>
Number parse_number(const char* name, const std::string& text, Number smallest, Number largest) {
    Number number = {};
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error == std::errc() && stop == end && number >= smallest && number <= largest) {
        return number;
    }
    throw usage_error(fmt::format("{}: \"{}\" does not fit; it takes {} to {}", name, escaped(text),
                                  smallest, largest));
}

// Without a limit a single failure would block everybody, and nobody would be told; a block of no
// time blocks nobody.
void set_word(wanted_settings& wanted, const std::string& word) {
    constexpr double shortest_block = 1.0 / 60;
    const size_t equals = word.find('=');
    const std::string name = word.substr(0, equals);
    const std::string text = equals == std::string::npos ? "" : word.substr(equals + 1);
    if (equals == std::string::npos && (word == "on" || word == "off")) {
        wanted.enable = parse_switch(word);
    } else if (name == "enable") {
        wanted.enable = parse_switch(text);
    } else if (name == "limit") {
        wanted.limit = parse_number<int64_t>("limit", text, 1, largest_limit);
    } else if (name == "time") {
        wanted.minutes = parse_number<double>("time", text, shortest_block, longest_block);
    } else {
        throw usage_error(fmt::format("\"{}\" is neither on, off, limit=FAILURES nor time=MINUTES",
                                      escaped(word)));
    }
}

// --- The file -----------------------------------------------------------------------------------

// What other programs keep in it stays. Throws when there is something that is no JSON object.
json_ptr read_file() {
    if (access(block_settings_path, F_OK) != 0 && errno == ENOENT) return json_ptr(json_object());
    json_error_t error = {};
    json_ptr root(json_load_file(block_settings_path, 0, &error));
    if (json_is_object(root.get())) return root;
    if (access(block_settings_path, R_OK) != 0) {
        throw std::system_error(errno, std::generic_category(), block_settings_path);
    }
    throw std::runtime_error(fmt::format("{} is damaged, so nothing was changed: {}",
                                         block_settings_path,
                                         root ? "it holds no JSON object" : escaped(error.text)));
}

void change(json_t* root, const wanted_settings& wanted) {
    if (!json_is_object(json_object_get(root, "global"))) {
        set_member(root, "global", json_object());
    }
    json_t* global = json_object_get(root, "global");
    if (wanted.enable) set_member(global, "enable", json_boolean(*wanted.enable));
    if (wanted.limit) set_member(global, "limit", json_integer(*wanted.limit));
    if (!wanted.minutes) return;
    const auto whole = static_cast<json_int_t>(*wanted.minutes);
    const bool is_whole = static_cast<double>(whole) == *wanted.minutes;
    set_member(global, "time", is_whole ? json_integer(whole) : json_real(*wanted.minutes));
}

// Where the file lies once links are followed; it keeps its owner and its rights.
void write_file(const json_t* root) {
    constexpr mode_t usual_rights = 0644;
    constexpr size_t indent = 4;
    const json_text text(json_dumps(root, JSON_INDENT(indent)));
    if (text == nullptr) throw std::bad_alloc();
    const std::unique_ptr<char, json_text_deleter> location(realpath(block_settings_path, nullptr));
    const std::string path = location ? location.get() : block_settings_path;
    struct stat before = {};
    const bool was_there = stat(path.c_str(), &before) == 0;
    new_file file(path, was_there ? before.st_mode & ACCESSPERMS : usual_rights);
    file.write(text.get());
    file.write("\n");
    file.finish();
    if (!was_there) return;
    if (chown(path.c_str(), before.st_uid, before.st_gid) == 0) {
        (void)chmod(path.c_str(), before.st_mode & ACCESSPERMS);
    }
}

// --- Output -------------------------------------------------------------------------------------

std::string minutes_text(double minutes) {
    return fmt::format("{:g} {}", minutes, minutes == 1 ? "minute" : "minutes");
}

void print_limiter(const limiter_state& limiter, bool as_json) {
    if (!as_json) {
        fmt::print("limiter  {}\nfile     {}\n", describe(limiter), block_settings_path);
        return;
    }
    const json_ptr object(json_object());
    set_member(object.get(), "schema", json_string(schema_name("limiter").c_str()));
    if (json_object_update(object.get(), to_json(limiter).get()) != 0) throw std::bad_alloc();
    dump_to_stdout(object.get());
    fmt::print("\n");
}

exit_status show_limiter(bool as_json) {
    (void)read_block_settings();  // tells why there are none by how it fails
    print_limiter(look_at_limiter(), as_json);
    return done;
}

block_settings settings_in(json_t* root) {
    const json_ptr reply(json_pack("{s:O}", "data", root));
    if (reply == nullptr) throw std::bad_alloc();
    return to_block_settings(reply.get());
}

void check_kept(const limiter_state& limiter, const block_settings& expected) {
    const block_settings& told = limiter.settings;
    if (!told.available) {
        throw not_kept_error(fmt::format(
            "{} has the new settings, but the limiter does not get them and blocks nobody: {}",
            block_settings_path, limiter.reason));
    }
    if (told.enabled == expected.enabled && told.limit == expected.limit &&
        told.block_seconds == expected.block_seconds) {
        return;
    }
    throw not_kept_error(
        fmt::format("{} was written, but the limiter gets other settings: another program has "
                    "changed them since, or the settings service reads another file",
                    block_settings_path));
}

exit_status set_limiter(const std::vector<std::string>& words) {
    wanted_settings wanted;
    for (const std::string& word : words) set_word(wanted, word);
    const json_ptr root = read_file();
    change(root.get(), wanted);
    const block_settings expected = settings_in(root.get());
    if (expected.enabled && (expected.limit < 1 || expected.block_seconds == 0)) {
        throw usage_error("a limiter that is on needs limit=FAILURES and time=MINUTES, too");
    }
    write_file(root.get());
    const limiter_state limiter = look_at_limiter();
    check_kept(limiter, expected);
    print_limiter(limiter, false);
    return done;
}

}  // namespace

limiter_state look_at_limiter() {
    limiter_state limiter;
    try {
        const json_ptr reply = read_block_settings();
        limiter.settings = to_block_settings(reply.get());
        const json_t* global = json_object_get(json_object_get(reply.get(), "data"), "global");
        const json_t* limit = json_object_get(global, "limit");
        const json_t* minutes = json_object_get(global, "time");
        if (json_is_integer(limit)) limiter.limit = json_integer_value(limit);
        if (json_is_number(minutes)) limiter.minutes = json_number_value(minutes);
    } catch (const failure& error) {
        limiter.reason = error.what();
    }
    return limiter;
}

std::string describe(const limiter_state& limiter) {
    if (!limiter.settings.available) {
        return "not known, so nobody is blocked: " + limiter.reason;
    }
    if (!limiter.limit || !limiter.minutes) {
        return limiter.settings.enabled ? "on, but its limit or its time is not set" : "off";
    }
    const char* form = *limiter.limit == 1 ? "{} failed login blocks a user for {}"
                                           : "{} failed logins block a user for {}";
    const std::string text =
        fmt::format(fmt::runtime(form), *limiter.limit, minutes_text(*limiter.minutes));
    return (limiter.settings.enabled ? "on: " : "off; when it is on, ") + text;
}

json_ptr to_json(const limiter_state& limiter) {
    const bool is_known = limiter.settings.available;
    json_ptr object(json_object());
    set_member(object.get(), "enable",
               is_known ? json_boolean(limiter.settings.enabled) : json_null());
    set_member(object.get(), "limit", limiter.limit ? json_integer(*limiter.limit) : json_null());
    set_member(object.get(), "time", limiter.minutes ? json_real(*limiter.minutes) : json_null());
    return object;
}

void declare_limiter(command_line& line) {
    const auto as_json = std::make_shared<bool>(false);
    const auto words = std::make_shared<std::vector<std::string>>();
    const cli_command limiter =
        line.add_subcommand("limiter", "Show or set when failed logins block a user");
    limiter.require_subcommand(0, 1);
    const cli_option json = limiter.add_flag("--json", *as_json, "Print a JSON object");
    const cli_command show = limiter.add_subcommand("show", "Show it, as without a subcommand");
    show.add_flag("--json", *as_json, "Print a JSON object");
    for (const cli_command command : {limiter, show}) {
        line.runs(command, [as_json] { return show_limiter(*as_json); });
    }
    const cli_command set = limiter.add_subcommand("set", "Change the settings; others stay");
    set.add_option("settings", *words, "on, off, limit=FAILURES, time=MINUTES")
        .type_name("WORD")
        .required();
    set.excludes(json);
    line.runs(set, [words] { return set_limiter(*words); });
}
