// ravoctl: lists and adds the records of a running ravod, looks after its login-attempt limiter,
// sets the default gateway, and calls methods by hand.
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstring>
#include <exception>
#include <system_error>

#include "blocks.h"
#include "call.h"
#include "command_line.h"
#include "completion.h"
#include "doctor.h"
#include "export.h"
#include "failure.h"
#include "gateway.h"
#include "import.h"
#include "limiter.h"
#include "list.h"
#include "metrics.h"
#include "prune.h"
#include "report.h"
#include "session_list.h"
#include "status.h"
#include "terminal.h"
#include "text.h"
#include "uuid.h"
#include "watch.h"

namespace {

constexpr char exit_status_help[] =
    "Exit status: 0 done, 1 no, blocked, or not there, 2 bad usage or value, 3 not reachable, 4 "
    "not\n"
    "permitted, 5 accepted, but the check afterwards shows otherwise, 6 timed out, 7 no memory, or "
    "a\n"
    "file or the output cannot be used, 8 the other side did not do what was asked.";

// In the order of the help.
constexpr void (*nouns[])(command_line&) = {
    declare_status,  declare_sessions, declare_tables, declare_blocks,
    declare_limiter, declare_gateway,  declare_uuid,   declare_report,
    declare_metrics, declare_watch,    declare_export, declare_import,
    declare_prune,   declare_doctor,   declare_call,   declare_completion,
};

// Words of the command line may be somebody's name, so they are escaped where they are repeated.
std::string failure_message(const CLI::App* /*app*/, const CLI::Error& error) {
    return fmt::format("ravoctl: {}\nRun with --help for more information.\n",
                       escaped(error.what()));
}

void declare_all(command_line& line) {
    line.app().description(
        "Shows what a running ravod has recorded, and looks after its records, its login-attempt "
        "limiter and the default gateway.");
    line.app().set_version_flag("--version", "ravoctl " RAVO_VERSION);
    line.app().require_subcommand(0, 1);
    line.app().footer(exit_status_help);
    line.app().failure_message(failure_message);
    for (const auto declare : nouns) declare(line);
}

exit_status run(command_line& line) {
    if (const runner chosen = line.chosen()) return chosen();
    fmt::print(stderr, "{}", line.app().help());
    return bad_usage;
}

exit_status flush_output(exit_status status) {
    if (finish_output()) return status;
    (void)fputs("ravoctl: the output could not be written\n", stderr);
    return failed_here;
}

exit_status fail(const char* what, exit_status status) {
    (void)fprintf(stderr, "ravoctl: %s\n", what);
    return status;
}

// Takes the place of a standard stream that is closed. Otherwise the next file or connection would,
// and the output would go there. Nothing can be written to this one.
void fill_closed_streams() {
    int fd = 0;
    do {
        fd = open("/dev/null", O_RDONLY);
    } while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0) (void)close(fd);
}

exit_status dispatch(int argc, char** argv) {
    if (!use_utf8()) return fail("the system has no locale C.UTF-8", failed_here);
    command_line line;
    declare_all(line);
    if (argc > 1 && strcmp(argv[1], completion_question) == 0) {
        return answer_completion(line.app(), std::span(argv + 2, argv + argc));
    }
    try {
        line.app().parse(argc, argv);
        return run(line);
    } catch (const CLI::ParseError& error) {
        return line.app().exit(error) == 0 ? done : bad_usage;
    } catch (const failure& error) {
        return fail(error.what(), error.status);
    } catch (const std::system_error& error) {
        const bool is_refused = error.code() == std::errc::permission_denied ||
                                error.code() == std::errc::operation_not_permitted;
        return fail(error.what(), is_refused ? not_permitted : failed_here);
    }
}

}  // namespace

int main(int argc, char** argv) {
    fill_closed_streams();
    try {
        return flush_output(dispatch(argc, argv));
    } catch (const std::exception& error) {
        return fail(error.what(), failed_here);
    }
}
