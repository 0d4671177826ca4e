// The daemon's state as metrics, in the text format that Prometheus reads.
#include "metrics.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <memory>
#include <string_view>

#include "blocks.h"
#include "new_file.h"
#include "pages.h"
#include "sessions.h"
#include "settings.h"

namespace {

// A metric's head and its samples, which stand together.
class metric {
  public:
    metric(std::string& text, std::string_view metric_name, std::string_view help)
        : out(text), name(metric_name) {
        fmt::format_to(std::back_inserter(out), "# HELP {0} {1}\n# TYPE {0} gauge\n", name, help);
    }
    void sample(uint64_t value, std::string_view labels = {}) {
        fmt::format_to(std::back_inserter(out), "{}{} {}\n", name, labels, value);
    }

  private:
    std::string& out;
    std::string_view name;
};

void add_settings(std::string& text, const block_settings& settings) {
    metric(text, "ravod_limiter_settings_available",
           "Whether the settings service tells the login-attempt limiter's settings.")
        .sample(settings.available ? 1 : 0);
    if (!settings.available) return;
    metric(text, "ravod_limiter_enabled", "Whether the login-attempt limiter is on.")
        .sample(settings.enabled ? 1 : 0);
    if (!settings.enabled) return;
    metric(text, "ravod_limiter_limit", "Failed logins that block a user.")
        .sample(static_cast<uint64_t>(std::max<int64_t>(settings.limit, 0)));
    metric(text, "ravod_limiter_block_seconds", "Time that a block lasts.")
        .sample(settings.block_seconds);
}

void add_records(std::string& text, const daemon_metrics& metrics) {
    metric rows(text, "ravod_rows", "Rows of a table, of which the daemon counts 100000 at most.");
    for (const auto& [table, count] : metrics.rows) {
        rows.sample(count, fmt::format("{{table=\"{}\"}}", table));
    }
    metric(text, "ravod_open_sessions", "Sessions of the VPN server without a recorded end.")
        .sample(metrics.open_sessions);
    metric bytes(text, "ravod_recorded_bytes",
                 "Bytes of the recorded sessions of the VPN server, by direction as the server "
                 "sees it; less when old rows go.");
    bytes.sample(metrics.received_bytes, "{direction=\"received\"}");
    bytes.sample(metrics.sent_bytes, "{direction=\"sent\"}");
    metric(text, "ravod_blocked_users", "Users who are blocked now.").sample(metrics.blocked_users);
    metric(text, "ravod_failed_logins", "Failed logins that are counted and not forgotten.")
        .sample(metrics.failed_logins);
}

// --- What is known ------------------------------------------------------------------------------

void count_sessions(daemon_metrics& metrics) {
    for (const session& s : to_sessions(read_session_rows())) {
        if (s.state == session_state::open) ++metrics.open_sessions;
        metrics.received_bytes += static_cast<uint64_t>(std::max<int64_t>(s.received, 0));
        metrics.sent_bytes += static_cast<uint64_t>(std::max<int64_t>(s.sent, 0));
    }
}

void count_blocks(daemon_metrics& metrics) {
    for_each_row(kind_of(blocks_command), {}, [&metrics](const char* stored) {
        block_row row;
        memcpy(&row, stored, sizeof row);
        metrics.failed_logins += static_cast<uint64_t>(std::max<int64_t>(row.stored.limit, 0));
        metrics.blocked_users += row.left != no_number && row.left != 0 ? 1 : 0;
        return true;
    });
}

// A daemon that does not answer is one that is down, which is no failure of this command.
daemon_metrics read_metrics() {
    daemon_metrics metrics;
    try {
        for (const record_kind& kind : record_kinds()) {
            metrics.rows.emplace_back(kind.command, count_rows(kind));
        }
        count_sessions(metrics);
        count_blocks(metrics);
        metrics.is_up = true;
    } catch (const failure& error) {
        fmt::print(stderr, "ravoctl: {}\n", error.what());
    }
    metrics.settings = ask_block_settings();
    return metrics;
}

exit_status write_metrics(const std::string& path) {
    new_file file(path, 0644);  // for a collector that runs as another user
    file.write(to_metrics_text(read_metrics()));
    file.finish();
    return done;
}

}  // namespace

std::string to_metrics_text(const daemon_metrics& metrics) {
    std::string text;
    metric(text, "ravod_up", "Whether the daemon answers.").sample(metrics.is_up ? 1 : 0);
    if (metrics.is_up) add_records(text, metrics);
    add_settings(text, metrics.settings);
    return text;
}

void declare_metrics(command_line& line) {
    const auto path = std::make_shared<std::string>("-");
    CLI::App* metrics =
        line.app.add_subcommand("metrics", "Print the state of the daemon as Prometheus metrics");
    metrics->add_option("--output", *path, "File to write; - is standard output")
        ->type_name("FILE")
        ->capture_default_str();
    line.runs(metrics, [path] { return write_metrics(*path); });
}
