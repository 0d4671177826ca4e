// Connections, failed logins and blocks, told as they come.
//
// The tables are asked again and again for rows with a larger id than the last one. A terminal
// shows the newest events on a screen that is drawn anew, anything else gets a line for each.
#include "watch.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <memory>
#include <utility>

#include "blocks.h"
#include "pages.h"
#include "sessions.h"
#include "text.h"

namespace {

// --- Connections --------------------------------------------------------------------------------

template <size_t size>
std::string to_text(const char (&array)[size]) {
    return escaped({array, strnlen(array, size)});
}

std::string far_end(const db_conn_server_log& row) { return to_text(row.source_ip); }
std::string far_end(const db_conn_client_log_data& row) { return to_text(row.wan_ip); }

template <class Row>
std::string words_of(const char* stored) {
    Row row;
    memcpy(&row, stored, sizeof row);
    const std::string user = to_text(row.username);
    const auto traffic = [&row] {
        return fmt::format("after {} s, {} received, {} sent", row.uptime,
                           bytes_text(static_cast<double>(row.rx_total)),
                           bytes_text(static_cast<double>(row.tx_total)));
    };
    switch (row.action) {
        case connected:
            return fmt::format("{} connected, {} as {}", user, far_end(row), to_text(row.vpn_ip));
        case disconnected:
            return fmt::format("{} disconnected {}", user, traffic());
        case lost:
            return fmt::format("{} was lost {}", user, traffic());
        default:
            return fmt::format("{} recorded with action {}", user, row.action);
    }
}

// The rows of one table that are new since the last look.
struct watched_table {
    const record_kind& kind;
    std::string (*words)(const char* row);
    const char* before;  // the words, to tell the tables apart
    uint32_t last_id = newest_id(kind);

    std::vector<std::string> look() {
        std::vector<std::string> events;
        for (const std::string& row : rows_after(kind, {}, last_id)) {
            last_id = id_of(kind, row.data());
            events.push_back(before + words(row.data()));
        }
        return events;
    }
};

// --- Blocks -------------------------------------------------------------------------------------

watched_counters read_counters() {
    watched_counters counters;
    (void)for_each_row(kind_of(blocks_command), {}, [&counters](const char* stored) {
        block_row row;
        memcpy(&row, stored, sizeof row);
        counters[to_text(row.stored.username)] = {row.stored.limit,
                                                  row.left != no_number && row.left != 0};
        return true;
    });
    return counters;
}

// --- All of it ----------------------------------------------------------------------------------

class watched_daemon {
  public:
    // Throws failure: the daemon does not answer.
    watched_daemon() : counters(read_counters()) {}

    // What is new. A daemon that does not answer is an event, too.
    std::vector<std::string> look() {
        std::vector<std::string> events;
        try {
            for (watched_table& table : tables) append(events, table.look());
            watched_counters now = read_counters();
            append(events, counter_events(counters, now));
            counters = std::move(now);
            if (!std::exchange(is_up, true)) events.emplace_back("ravod answers again");
        } catch (const failure& error) {
            if (std::exchange(is_up, false)) events.emplace_back(error.what());
        }
        return events;
    }

    size_t blocked_users() const {
        return static_cast<size_t>(std::ranges::count_if(
            counters, [](const auto& counter) { return counter.second.is_blocked; }));
    }

  private:
    static void append(std::vector<std::string>& all, std::vector<std::string> more) {
        std::move(more.begin(), more.end(), std::back_inserter(all));
    }

    watched_table tables[2] = {
        {kind_of("sessions"), words_of<db_conn_server_log>, ""},
        {kind_of("outgoing"), words_of<db_conn_client_log_data>, "outgoing: "},
    };
    watched_counters counters;
    bool is_up = true;
};

// --- Showing it ---------------------------------------------------------------------------------

std::string clock_text() { return fmt::format("{:%H:%M:%S}", fmt::localtime(time(nullptr))); }

struct watched_screen {
    const bool is_terminal = isatty(STDOUT_FILENO) != 0;
    std::deque<std::string> lines = {};

    void show(const std::vector<std::string>& events, size_t blocked_users) {
        for (const std::string& event : events) {
            const std::string line = fmt::format("{} {}", clock_text(), event);
            if (!is_terminal) fmt::print("{}\n", line);
            lines.push_back(line);
        }
        if (is_terminal) draw(blocked_users);
        (void)fflush(stdout);
    }

  private:
    void draw(size_t blocked_users) {
        winsize size = {};
        (void)ioctl(STDOUT_FILENO, TIOCGWINSZ, &size);
        const size_t height = size.ws_row > 3 ? size.ws_row : 24;
        const size_t width = size.ws_col > 0 ? size.ws_col : 80;
        while (lines.size() > height - 3) lines.pop_front();
        fmt::print("\x1b[H\x1b[2J{} watching ravod, {} users blocked; ctrl-c ends\n\n",
                   clock_text(), blocked_users);
        for (const std::string& line : lines) fmt::print("{}\n", cut_to_width(line, width));
    }
};

// Signals that end it wait until they are asked for, so that no output is cut.
class ending_signals {
  public:
    ending_signals() {
        sigemptyset(&set);
        for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&set, signal);
        sigprocmask(SIG_BLOCK, &set, nullptr);
    }
    // False: the time is over and none has come.
    bool wait(double seconds) const {
        double whole = 0;
        const double rest = std::modf(seconds, &whole);
        const timespec time = {static_cast<time_t>(whole), static_cast<long>(rest * 1e9)};
        return sigtimedwait(&set, nullptr, &time) > 0;
    }

  private:
    sigset_t set = {};
};

exit_status watch(double interval) {
    const ending_signals signals;
    watched_daemon daemon;
    watched_screen screen;
    if (!screen.is_terminal) fmt::print(stderr, "ravoctl: watching; ctrl-c ends\n");
    screen.show({}, daemon.blocked_users());
    while (ferror(stdout) == 0 && !signals.wait(interval)) {
        screen.show(daemon.look(), daemon.blocked_users());
    }
    return done;
}

}  // namespace

std::vector<std::string> counter_events(const watched_counters& before,
                                        const watched_counters& now) {
    std::vector<std::string> events;
    for (const auto& [user, counter] : now) {
        const auto found = before.find(user);
        const watched_counter old = found == before.end() ? watched_counter{} : found->second;
        if (counter.failures > old.failures) {
            events.push_back(
                fmt::format("{} failed to log in, {} failures", user, counter.failures));
        }
        if (counter.is_blocked != old.is_blocked) {
            events.push_back(fmt::format("{} is {}", user,
                                         counter.is_blocked ? "blocked" : "not blocked any more"));
        }
    }
    for (const auto& [user, counter] : before) {
        if (now.contains(user)) continue;
        events.push_back(fmt::format("{} is {}", user,
                                     counter.is_blocked ? "not blocked any more" : "forgiven"));
    }
    return events;
}

void declare_watch(command_line& line) {
    constexpr double shortest = 0.1;
    constexpr double longest = 3600;
    const auto interval = std::make_shared<double>(2);
    const cli_command watch_command =
        line.add_subcommand("watch", "Tell of connections, failed logins and blocks as they come");
    watch_command.add_option("--interval", *interval, "Seconds between two looks")
        .type_name("SECONDS")
        .between(shortest, longest)
        .shows_default();
    line.runs(watch_command, [interval] { return watch(*interval); });
}
