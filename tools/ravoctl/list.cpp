// Listing and adding records: the same for every kind of record.
#include "list.h"

#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "bus.h"
#include "output.h"
#include "pages.h"
#include "removal.h"
#include "terminal.h"
#include "text.h"

namespace {

// --- Adding -------------------------------------------------------------------------------------

const field& field_of(const record_kind& kind, const std::string& name) {
    const auto named = [&name](const field& f) { return name == f.name; };
    const auto found = std::find_if(kind.fields.begin(), kind.fields.end(), named);
    if (found != kind.fields.end()) return *found;
    throw usage_error(fmt::format("{} has no field \"{}\"; its fields are {}", kind.command,
                                  escaped(name), names_of(kind.fields)));
}

struct assignment {
    const field& target;
    value content;
};

assignment parse_assignment(const record_kind& kind, const std::string& word) {
    const size_t equals = word.find('=');
    if (equals == std::string::npos) {
        throw usage_error(fmt::format("\"{}\" is not of the form FIELD=VALUE", escaped(word)));
    }
    const field& target = field_of(kind, word.substr(0, equals));
    return {target, parse_value(target, word.substr(equals + 1))};
}

void check_required(const record_kind& kind, const std::vector<char>& record) {
    const char* name = kind.adder.required;
    if (name == nullptr) return;
    const value content = read_value(field_of(kind, name), record.data());
    if (!plain_text(content).empty()) return;
    throw usage_error(fmt::format("{}: a {} needs one", name, kind.singular));
}

void print_answer(const record_kind& kind, const std::string& answer) {
    if (answer.empty()) {
        throw not_kept_error(
            fmt::format("ravod could not store the {}; its log file tells why", kind.singular));
    }
    fmt::print("{}\n", escaped(answer));
}

// Sends one record, filled from words "FIELD=VALUE"; the other fields are empty or 0. Prints what
// the daemon answers, if the kind has an answer. Throws usage_error as above, and when a required
// field is missing.
exit_status add_record(const record_kind& kind, const std::vector<std::string>& words) {
    std::vector<char> record(kind.size, '\0');
    std::set<std::string> seen;
    for (const std::string& word : words) {
        const assignment wanted = parse_assignment(kind, word);
        const std::string name = wanted.target.name;
        if (wanted.target.from == origin::given_by_table) {
            throw usage_error(fmt::format("{}: the table gives it", name));
        }
        if (!seen.insert(name).second) throw usage_error(fmt::format("{}: given twice", name));
        write_value(wanted.target, wanted.content, record.data());
    }
    check_required(kind, record);
    const added outcome = kind.adder.add(record.data());
    check_answered(outcome.result);
    if (outcome.answer) print_answer(kind, *outcome.answer);
    return done;
}

// --- The command line ---------------------------------------------------------------------------

std::string field_help(const record_kind& kind, bool settable_only) {
    std::string help = "Fields:\n";
    for (const field& f : kind.fields) {
        if (settable_only && f.from != origin::given_by_user) continue;
        help += fmt::format("  {:<13} {}\n", f.name, description(f));
    }
    return help;
}

// --- Listing ------------------------------------------------------------------------------------

row_values values_of(const record_kind& kind, const char* row) {
    row_values values;
    for (const field& f : kind.fields) values.push_back(read_value(f, row));
    return values;
}

// How a selection's rows are best read.
struct reading {
    row_filter filter;
    uint64_t most;  // matching rows that are enough
    int64_t rows_on_page;
};

// In the order of the result the first rows are enough, one more than wanted to know whether there
// are more. Since a time, it is the order of times that tells where to stop.
reading plan(const record_kind& kind, const selection& wanted) {
    reading how = {wanted.server_filter(), UINT64_MAX, page_rows};
    const bool is_by_time = wanted.span().since.has_value();
    if (is_by_time) {
        how.filter.order_by = wanted.begin_field();
    } else if (kind.fields[wanted.sort_field()].from != origin::computed) {
        how.filter.order_by = wanted.sort_field();
    }
    const bool is_in_order =
        how.filter.order_by == wanted.sort_field() || (is_by_time && wanted.is_in_usual_order());
    if (is_in_order && wanted.count()) how.most = *wanted.count() + 1;
    if (wanted.is_all_for_server()) {
        how.rows_on_page = static_cast<int64_t>(std::min<uint64_t>(how.most, page_rows));
    }
    return how;
}

row_list read_list(const record_kind& kind, const selection& wanted) {
    const reading how = plan(kind, wanted);
    const field& begin = kind.fields[wanted.begin_field()];
    const auto is_too_old = [&](const char* row) {
        const auto since = wanted.span().since;
        return since && std::get<uint64_t>(read_value(begin, row)) < static_cast<uint64_t>(*since);
    };
    std::vector<row_values> rows;
    const auto take = [&](const char* row) {
        if (is_too_old(row)) return false;
        row_values values = values_of(kind, row);
        if (wanted.matches(values)) rows.push_back(std::move(values));
        return rows.size() < how.most;
    };
    const uint64_t total = for_each_row(kind, how.filter, take, how.rows_on_page);
    row_list list = wanted.arrange(std::move(rows));
    list.total = total;
    return list;
}

[[noreturn]] void follow(const record_kind& kind, const selection& wanted, uint32_t last_id,
                         row_printer& printer) {
    (void)fflush(stdout);
    follow_rows(kind, wanted.server_filter(), last_id, [&](const std::vector<const char*>& rows) {
        std::vector<row_values> matching;
        for (const char* row : rows) {
            row_values values = values_of(kind, row);
            if (wanted.matches(values)) matching.push_back(std::move(values));
        }
        printer.print_more(matching);
    });
}

// --- The command line ---------------------------------------------------------------------------

}  // namespace

void declare_adder(command_line& line, cli_command list, const record_kind& kind) {
    const auto words = std::make_shared<std::vector<std::string>>();
    const cli_command add =
        list.add_subcommand(kind.adder.command, fmt::format("Record one {}", kind.singular));
    add.add_option("fields", *words, "The fields that are not to be empty or 0")
        .type_name("FIELD=VALUE")
        .required();
    add.footer(field_help(kind, true));
    line.runs(add, [&kind, words] { return add_record(kind, *words); });
}

void declare_list_options(cli_command app, list_request& request, const record_kind& kind) {
    declare_selection_options(app, request.which, kind.by);
    declare_output_options(app, request.output);
    if (kind.is_log) {
        app.add_flag("-f,--follow", request.follow,
                     "Go on with further ones as they are recorded, until interrupted");
    }
}

void check_followed(const list_request& request) {
    if (!request.follow) return;
    if (request.output.format == output_format::json) {
        throw usage_error("-f: one JSON object has an end; follow with -o jsonl");
    }
    if (request.which.reverse) throw usage_error("-f: what is followed comes the newest last");
    disable_pager();
}

uint32_t last_listed(uint32_t newest, const row_list& list) {
    for (const row_values& row : list.rows) {
        newest = std::max(newest, static_cast<uint32_t>(std::get<int64_t>(row.front())));
    }
    return newest;
}

exit_status list_records(const record_kind& kind, const list_request& request, const char* name) {
    check_followed(request);
    const selection wanted(request.which, kind.command, kind.fields, kind.by);
    row_printer printer(name, kind.fields, request.output);
    const uint32_t newest = request.follow ? newest_id(kind) : 0;
    const row_list list = read_list(kind, wanted);
    printer.print(list, request.follow ? "" : wanted.describe(list, "row"));
    if (request.follow) follow(kind, wanted, last_listed(newest, list), printer);
    return done;
}

cli_command declare_records(command_line& line, const record_kind& kind) {
    const auto request = std::make_shared<list_request>();
    const cli_command list = line.add_subcommand(kind.command, fmt::format("List {}", kind.what));
    declare_list_options(list, *request, kind);
    list.footer(field_help(kind, false));
    line.runs(list, [&kind, request] { return list_records(kind, *request, kind.command); });
    if (kind.adder.command != nullptr) declare_adder(line, list, kind);
    declare_removal(line, list, kind);
    return list;
}

void declare_tables(command_line& line) {
    for (const char* name : {"outgoing", "servers", "devices"}) {
        (void)declare_records(line, kind_of(name));
    }
}
