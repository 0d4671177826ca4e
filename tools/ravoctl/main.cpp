// ravoctl: lists and adds the records of a running ravod, looks after its login-attempt limiter,
// sets the default gateway, and calls methods by hand.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <deque>
#include <exception>

#include "blocks.h"
#include "call.h"
#include "failure.h"
#include "gateway.h"
#include "list.h"
#include "report.h"
#include "text.h"
#include "time_words.h"
#include "uuid.h"

namespace {

constexpr char exit_status_help[] =
    "Exit status: 0 done, 1 bad usage or value, 2 no memory, or a file or the output cannot be\n"
    "used, 3 the daemon is not reachable, 4 the daemon did not do what was asked, 5 a gateway\n"
    "setting was accepted, but is not in the file. Of \"blocks check\": 0 not blocked, 1 blocked;\n"
    "below \"blocks\", bad usage is 2.";

// --- Subcommands of a kind of record ------------------------------------------------------------

struct record_command {
    const record_kind& kind;
    CLI::App* list = nullptr;
    CLI::App* add = nullptr;
    list_request request = {};
    std::vector<std::string> words = {};
};

std::string field_help(const record_kind& kind, bool settable_only) {
    std::string help = "Fields:\n";
    for (const field& f : kind.fields) {
        if (settable_only && f.from != origin::given_by_user) continue;
        help += fmt::format("  {:<13} {}\n", f.name, description(f));
    }
    return help;
}

void declare_page_options(CLI::App& app, list_request& request) {
    constexpr int64_t last_page = 1'000'000'000;
    auto* page = app.add_option("--page", request.page_number, "Page to show, from 1")
                     ->type_name("N")
                     ->check(CLI::Range(int64_t{1}, last_page));
    auto* per_page = app.add_option("--per-page", request.per_page, "Rows on a page")
                         ->type_name("N")
                         ->check(CLI::Range(int64_t{1}, largest_page))
                         ->capture_default_str();
    auto* start = app.add_option("--start", request.start, "Rows to skip, instead of --page")
                      ->type_name("N")
                      ->check(CLI::Range(int64_t{0}, largest_page))
                      ->excludes(page)
                      ->excludes(per_page);
    app.add_option("--count", request.count, "Rows to show, with --start")
        ->type_name("N")
        ->check(CLI::Range(int64_t{0}, largest_page))
        ->capture_default_str()
        ->needs(start);
}

void declare_list_options(CLI::App& app, list_request& request) {
    app.add_option("--filter", request.filter, "Only rows with this value in this field")
        ->type_name("FIELD=VALUE");
    app.add_option("--order", request.order, "Field to sort by")
        ->type_name("FIELD")
        ->capture_default_str();
    app.add_flag("--desc", request.descending, "Largest first");
    declare_page_options(app, request);
    auto* json = app.add_flag("--json", request.as_json, "Print a JSON object instead of a table");
    app.add_flag("--wide", request.wide, "All fields, and texts in full length")->excludes(json);
}

void declare_record_command(CLI::App& app, record_command& command) {
    const record_kind& kind = command.kind;
    command.list = app.add_subcommand(kind.command, fmt::format("List {}", kind.what));
    declare_list_options(*command.list, command.request);
    command.list->footer(field_help(kind, false));
    if (kind.adder.command == nullptr) return;
    command.add = command.list->add_subcommand(kind.adder.command,
                                               fmt::format("Record one {}", kind.singular));
    command.add->add_option("fields", command.words, "The fields that are not to be empty or 0")
        ->type_name("FIELD=VALUE")
        ->required();
    command.add->footer(field_help(kind, true));
}

exit_status run(const record_command& command) {
    if (command.add != nullptr && command.add->parsed())
        return add_record(command.kind, command.words);
    return list_records(command.kind, command.request);
}

// --- Subcommands of blocks ----------------------------------------------------------------------

struct blocks_commands {
    CLI::App* blocks = nullptr;
    CLI::App* check = nullptr;
    CLI::App* fail = nullptr;
    CLI::App* lift = nullptr;
    std::string user = {};
    CLI::Option* users = nullptr;
    bool all = false;
};

constexpr char user_help[] = "User name; put -- before one that begins with -";

CLI::App* declare_user_command(CLI::App& app, const char* name, const char* help,
                               std::string& user) {
    CLI::App* command = app.add_subcommand(name, help);
    command->add_option("user", user, user_help)->required();
    return command;
}

// The users are taken from the option as they were typed. Their number has an end, because CLI11
// would split a name such as "[a,b]" if it had none.
void declare_lift(CLI::App& app, blocks_commands& commands) {
    constexpr int most_users = 1 << 30;
    commands.lift = app.add_subcommand("lift", "Forget users' failures, and so lift their blocks");
    auto* all = commands.lift->add_flag("--all", commands.all, "Forget everybody's");
    commands.users = commands.lift->add_option("users", user_help)
                         ->expected(most_users)
                         ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
                         ->option_text("TEXT ...")
                         ->excludes(all);
}

// A user may be called like a subcommand, which CLI11 respects where only one of them can be given.
void declare_blocks(CLI::App& blocks, blocks_commands& commands) {
    commands.blocks = &blocks;
    blocks.require_subcommand(0, 1);
    commands.check = declare_user_command(
        blocks, "check", "Tell, by the exit status, too, whether a user is blocked", commands.user);
    commands.fail =
        declare_user_command(blocks, "fail", "Count one failed login of a user", commands.user);
    declare_lift(blocks, commands);
    for (CLI::App* command : blocks.get_subcommands({})) command->footer("");
}

exit_status run_lift(const blocks_commands& commands) {
    if (commands.all) return lift_all();
    if (commands.users->count() == 0) throw usage_error("lift: name users, or give --all");
    return lift_users(commands.users->results());
}

// --- Subcommands of gateway ---------------------------------------------------------------------

struct gateway_commands {
    CLI::App* gateway = nullptr;
    CLI::App* set = nullptr;
    CLI::App* drop = nullptr;
    bool as_json = false;
    gateway_request request = {};
    connection_words gone = {};
};

void declare_gateway_set(CLI::App& gateway, gateway_commands& commands) {
    gateway_request& request = commands.request;
    commands.set = gateway.add_subcommand("set", "Make a VPN connection the default gateway");
    commands.set->add_option("gateway", request.gateway, "Type and index, or \"none\"")
        ->expected(1, 2)
        ->option_text("TYPE INDEX | none REQUIRED")
        ->required();
    commands.set->add_option("--backup", request.backup, "The connection that stands in for it")
        ->expected(2)
        ->type_name("TYPE INDEX");
    commands.set
        ->add_option("--delay", request.delay,
                     "How long the backup goes on when the gateway is back: never, 0, 1, 5 or 10; "
                     "0 if not given")
        ->type_name("CODE");
    commands.set->add_flag("--reset", request.reset, "Begin a damaged options file anew");
}

void declare_gateway(CLI::App& app, gateway_commands& commands) {
    commands.gateway = app.add_subcommand("gateway", "Show or set the default gateway");
    commands.gateway->require_subcommand(0, 1);
    CLI::App* show = commands.gateway->add_subcommand("show", "Show it, as without a subcommand");
    constexpr char json_help[] = "Print a JSON object";
    auto* json = commands.gateway->add_flag("--json", commands.as_json, json_help);
    show->add_flag("--json", commands.as_json, json_help);
    declare_gateway_set(*commands.gateway, commands);
    commands.drop = commands.gateway->add_subcommand(
        "drop", "Take a connection out; the backup takes a gateway's place");
    commands.drop->add_option("connection", commands.gone, "Type and index")
        ->expected(2)
        ->option_text("TYPE INDEX REQUIRED")
        ->required();
    const std::string words = "Types, and their indexes: " + gateway_words_help() + "\n";
    for (CLI::App* command : {commands.set, commands.drop}) {
        command->footer(words);
        command->excludes(json);
    }
}

exit_status run(const gateway_commands& commands) {
    if (commands.set->parsed()) return set_gateway(commands.request);
    if (commands.drop->parsed()) return drop_gateway(commands.gone);
    return show_gateway(commands.as_json);
}

// --- The report subcommand ----------------------------------------------------------------------

CLI::App* declare_report(CLI::App& app, report_request& request) {
    CLI::App* report = app.add_subcommand("report", "Draw sessions and failed logins as a page");
    report->add_option("--html", request.file, "File for the page; - is standard output")
        ->type_name("FILE")
        ->required();
    const std::string words = fmt::format("; {}", time_words_help);
    report
        ->add_option("-S,--since", request.since,
                     "Begin at this time, 30 days before the end if not given" + words)
        ->type_name("TIME");
    report->add_option("-U,--until", request.until, "End at this time, now if not given")
        ->type_name("TIME");
    return report;
}

// --- The call subcommand ------------------------------------------------------------------------

void declare_payload_options(CLI::App& app, call_request& request) {
    auto* text = app.add_option("--text", request.text, "Send these characters")->type_name("TEXT");
    auto* hex = app.add_option("--hex", request.hex, "Send the bytes that these digits tell")
                    ->type_name("DIGITS");
    app.add_option("--file", request.file, "Send a file's content; - is standard input")
        ->type_name("PATH")
        ->excludes(text)
        ->excludes(hex);
    hex->excludes(text);
}

CLI::App* declare_call(CLI::App& app, call_request& request) {
    constexpr int longest_timeout = 86400;
    CLI::App* call = app.add_subcommand("call", "Call a method and print its reply");
    call->add_option("method", request.method, "Name of the method")->required();
    call->add_option("--endpoint", request.endpoint, "Address, or name of a registered service")
        ->type_name("ADDRESS")
        ->capture_default_str();
    call->add_option("--timeout", request.timeout_s, "Seconds to wait without progress")
        ->type_name("SECONDS")
        ->check(CLI::Range(1, longest_timeout))
        ->capture_default_str();
    declare_payload_options(*call, request);
    call->add_flag("--raw", request.raw, "Print the reply byte for byte");
    return call;
}

// --- The program --------------------------------------------------------------------------------

struct all_commands {
    std::deque<record_command> records;
    blocks_commands blocks;
    gateway_commands gateway;
    call_request request;
    CLI::App* call = nullptr;
    CLI::App* uuid = nullptr;
    report_request report = {};
    CLI::App* report_command = nullptr;
};

// Words of the command line may be somebody's name, so they are escaped where they are repeated.
std::string failure_message(const CLI::App* /*app*/, const CLI::Error& error) {
    return fmt::format("ravoctl: {}\nRun with --help for more information.\n",
                       escaped(error.what()));
}

void declare_all(CLI::App& app, all_commands& commands) {
    app.set_version_flag("--version", "ravoctl " RAVO_VERSION);
    app.require_subcommand(0, 1);
    app.footer(exit_status_help);
    app.failure_message(failure_message);
    for (const record_kind& kind : record_kinds()) {
        declare_record_command(app, commands.records.emplace_back(record_command{kind}));
    }
    declare_blocks(*app.get_subcommand(blocks_command), commands.blocks);
    declare_gateway(app, commands.gateway);
    commands.uuid =
        app.add_subcommand("uuid", "Print a fresh UUID, of which the daemon keeps no record");
    commands.report_command = declare_report(app, commands.report);
    commands.call = declare_call(app, commands.request);
}

exit_status run(const CLI::App& app, const all_commands& commands) {
    const blocks_commands& blocks = commands.blocks;
    if (blocks.check->parsed()) return check_user(blocks.user);
    if (blocks.fail->parsed()) return count_failure(blocks.user);
    if (blocks.lift->parsed()) return run_lift(blocks);
    if (commands.gateway.gateway->parsed()) return run(commands.gateway);
    if (commands.uuid->parsed()) return print_fresh_uuid();
    if (commands.report_command->parsed()) return write_report(commands.report);
    if (commands.call->parsed()) return call_method(commands.request);
    for (const record_command& command : commands.records) {
        if (command.list->parsed()) return run(command);
    }
    fmt::print(stderr, "{}", app.help());
    return bad_usage;
}

exit_status flush_output(exit_status status) {
    if (fflush(stdout) == 0 && ferror(stdout) == 0) return status;
    (void)fputs("ravoctl: the output could not be written\n", stderr);
    return local_error;
}

exit_status fail(const char* what, exit_status status) {
    (void)fprintf(stderr, "ravoctl: %s\n", what);
    return status;
}

exit_status dispatch(int argc, char** argv) {
    if (!use_utf8()) return fail("the system has no locale C.UTF-8", local_error);
    CLI::App app{
        "Lists and adds the records of a running ravod, calls its methods, and sets the default "
        "gateway."};
    all_commands commands;
    declare_all(app, commands);
    const auto usage_status = [&commands] {
        return commands.blocks.blocks->parsed() ? bad_blocks_usage : bad_usage;
    };
    try {
        app.parse(argc, argv);
        return run(app, commands);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? done : usage_status();
    } catch (const usage_error& error) {
        return fail(error.what(), usage_status());
    } catch (const not_kept_error& error) {
        return fail(error.what(), not_kept);
    }
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return flush_output(dispatch(argc, argv));
    } catch (const std::exception& error) {
        return fail(error.what(), local_error);
    }
}
