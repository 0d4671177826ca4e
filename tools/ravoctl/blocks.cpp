// The login-attempt limiter: who is blocked, one failure more, and blocks lifted.
#include "blocks.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "bus.h"
#include "list.h"
#include "settings.h"
#include "text.h"

namespace {

template <size_t size>
void set_state(char (&to)[size], std::string_view state) {
    memcpy(to, state.data(), state.size() + 1);
}

// When a block ends, or as far as a time goes.
int64_t end_of_block(uint64_t timestamp, uint64_t block_seconds) {
    constexpr int64_t latest = std::numeric_limits<int64_t>::max();
    const auto seconds = static_cast<int64_t>(std::min<uint64_t>(block_seconds, latest));
    int64_t end = 0;
    if (__builtin_add_overflow(static_cast<int64_t>(timestamp), seconds, &end)) return latest;
    return std::max<int64_t>(end, 0);
}

void set_times(block_row& row, const block_settings& settings, time_t now) {
    const bool lasts = still_blocks(settings, row.stored.timestamp, now);
    const int64_t end = end_of_block(row.stored.timestamp, settings.block_seconds);
    set_state(row.state, lasts ? "blocked" : "run out");
    row.until = static_cast<uint64_t>(end);
    row.left = lasts ? static_cast<uint64_t>(std::max<int64_t>(end - now, 0)) : 0;
}

block_row with_state(const db_privilege_user_block_data& counter, const block_settings& settings,
                     time_t now) {
    block_row row = {counter, {}, no_number, no_number};
    if (!settings.available) {
        set_state(row.state, "settings unknown");
    } else if (!settings.enabled) {
        set_state(row.state, "limiter off");
    } else if (row.stored.limit < settings.limit) {
        set_state(row.state, "counting");
    } else {
        set_times(row, settings, now);
    }
    return row;
}

// The client library takes names that it could write to.
template <auto call>
int call_with_name(std::string user) {
    return call(user.data());
}

// Asks whether the user is blocked and prints the answer: done for not blocked, no for blocked.
exit_status check_user(const std::string& user) {
    const int result = call_with_name<check_privilege_user_block>(user);
    if (result != 1) check_answered(result);
    fmt::print("{} is {}\n", escaped(user), result == 1 ? "blocked" : "not blocked");
    if (result == 1) return no;
    // The daemon answers "not blocked" also when it could not read the settings.
    if (!ask_block_settings().available) {
        fmt::print(stderr, "ravoctl: without its settings the limiter blocks nobody\n");
    }
    return done;
}

exit_status count_failure(const std::string& user) {
    check_answered(call_with_name<add_privilege_user_block>(user));
    return done;
}

// Stops at the first one that fails.
exit_status lift_users(const std::vector<std::string>& users) {
    for (const std::string& user : users) {
        check_answered(call_with_name<delete_privilege_user_block>(user));
    }
    return done;
}

exit_status lift_all() {
    check_answered(clean_privilege_user_block());
    return done;
}

// --- The command line ---------------------------------------------------------------------------

constexpr char user_help[] = "User name; put -- before one that begins with -";

void declare_user_command(command_line& line, CLI::App& blocks, const char* name, const char* help,
                          exit_status (*run)(const std::string& user)) {
    const auto user = std::make_shared<std::string>();
    CLI::App* command = blocks.add_subcommand(name, help);
    command->add_option("user", *user, user_help)->required();
    line.runs(command, [user, run] { return run(*user); });
}

// The users are taken from the option as they were typed. Their number has an end, because CLI11
// would split a name such as "[a,b]" if it had none.
void declare_lift(command_line& line, CLI::App& blocks) {
    constexpr int most_users = 1 << 30;
    const auto for_all = std::make_shared<bool>(false);
    CLI::App* lift =
        blocks.add_subcommand("lift", "Forget users' failures, and so lift their blocks");
    auto* all = lift->add_flag("--all", *for_all, "Forget everybody's");
    auto* users = lift->add_option("users", user_help)
                      ->expected(most_users)
                      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
                      ->option_text("TEXT ...")
                      ->excludes(all);
    line.runs(lift, [for_all, users] {
        if (*for_all) return lift_all();
        if (users->count() == 0) throw usage_error("lift: name users, or give --all");
        return lift_users(users->results());
    });
}

}  // namespace

page with_states(page counters) {
    if (!counters.was_read || counters.count == 0) return counters;
    const block_settings settings = ask_block_settings();
    const time_t now = time(nullptr);
    auto* rows = static_cast<block_row*>(calloc(counters.count, sizeof(block_row)));
    if (rows == nullptr) throw std::bad_alloc();
    for (uint64_t i = 0; i < counters.count; ++i) {
        db_privilege_user_block_data counter;
        memcpy(&counter, counters.rows.get() + i * sizeof counter, sizeof counter);
        rows[i] = with_state(counter, settings, now);
    }
    counters.rows.reset(reinterpret_cast<char*>(rows));
    return counters;
}

// A user may be called like a subcommand, which CLI11 respects where only one of them can be given.
void declare_blocks(command_line& line) {
    CLI::App& blocks = *declare_records(line, kind_of(blocks_command));
    blocks.require_subcommand(0, 1);
    declare_user_command(line, blocks, "check",
                         "Tell, by the exit status, too, whether a user is blocked", check_user);
    declare_user_command(line, blocks, "fail", "Count one failed login of a user", count_failure);
    declare_lift(line, blocks);
    for (CLI::App* command : blocks.get_subcommands({})) command->footer("");
}
