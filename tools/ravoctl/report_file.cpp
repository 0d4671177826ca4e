// The report of what the daemon knows now, written to a file.
#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <memory>

#include "blocks.h"
#include "new_file.h"
#include "pages.h"
#include "report.h"
#include "settings.h"
#include "text.h"
#include "time_words.h"

namespace {

struct report_request {
    std::string file;   // "-": standard output
    std::string since;  // empty: 30 days before the end
    std::string until;  // empty: until now
};

constexpr int64_t usual_length = int64_t{30} * 24 * 3600;  // seconds
constexpr int64_t latest_time = 253'402'300'799;           // the end of the year 9999

int64_t parse_time(const char* option, const std::string& text, int64_t now) {
    const auto seconds = parse_time_words(text, now);
    if (seconds && 0 <= *seconds && *seconds <= latest_time) return *seconds;
    throw usage_error(
        fmt::format("{}: \"{}\" is no time; it takes {}", option, escaped(text), time_words_help));
}

std::vector<failed_logins> read_failures() {
    std::vector<failed_logins> failures;
    for_each_row(kind_of(blocks_command), {}, [&failures](const char* stored) {
        block_row row;
        memcpy(&row, stored, sizeof row);
        failures.push_back(
            {.user = std::string(row.stored.username, strnlen(row.stored.username, RAVO_TEXT_SIZE)),
             .count = row.stored.limit,
             .last = static_cast<int64_t>(row.stored.timestamp),
             .blocked_until = row.until == no_number ? 0 : static_cast<int64_t>(row.until)});
        return true;
    });
    std::reverse(failures.begin(), failures.end());
    return failures;
}

exit_status write_report(const report_request& request) {
    report_content content;
    content.now = time(nullptr);
    content.until = content.now;
    if (!request.until.empty()) content.until = parse_time("--until", request.until, content.now);
    content.since = content.until - usual_length;
    if (!request.since.empty()) content.since = parse_time("--since", request.since, content.now);
    if (content.since >= content.until) throw usage_error("--since is not before --until");
    content.sessions = to_sessions(read_session_rows());
    content.failures = read_failures();
    new_file file(request.file, 0666);
    file.write(to_html(content));
    file.finish();
    return done;
}

}  // namespace

void declare_report(command_line& line) {
    const auto request = std::make_shared<report_request>();
    CLI::App* report =
        line.app.add_subcommand("report", "Draw sessions and failed logins as a page");
    report->add_option("--html", request->file, "File for the page; - is standard output")
        ->type_name("FILE")
        ->required();
    const std::string words = fmt::format("; {}", time_words_help);
    report
        ->add_option("-S,--since", request->since,
                     "Begin at this time, 30 days before the end if not given" + words)
        ->type_name("TIME");
    report->add_option("-U,--until", request->until, "End at this time, now if not given")
        ->type_name("TIME");
    line.runs(report, [request] { return write_report(*request); });
}
