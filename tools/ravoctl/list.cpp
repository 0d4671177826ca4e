// Listing and adding records: the same for every kind of record.
#include "list.h"

#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "blocks.h"
#include "bus.h"
#include "output.h"
#include "pages.h"
#include "removal.h"
#include "text.h"

namespace {

// What the user asked for; rows are counted from 0, pages from 1.
struct list_request {
    std::string filter;  // "FIELD=VALUE", or empty
    std::string order = "id";
    bool descending = false;
    int64_t page_number = 1;
    int64_t per_page = default_page;
    int64_t start = -1;  // -1: by page
    int64_t count = default_page;
    bool as_json = false;
    bool wide = false;
};

// --- What the user wrote ------------------------------------------------------------------------

std::string names_of(std::span<const field> fields) {
    std::string names;
    for (const field& f : fields) names += (names.empty() ? "" : ", ") + std::string(f.name);
    return names;
}

size_t index_of(const record_kind& kind, const std::string& name) {
    const auto named = [&name](const field& f) { return name == f.name; };
    const auto found = std::find_if(kind.fields.begin(), kind.fields.end(), named);
    if (found == kind.fields.end()) {
        throw usage_error(fmt::format("{} has no field \"{}\"; its fields are {}", kind.command,
                                      escaped(name), names_of(kind.fields)));
    }
    if (found->from == origin::computed) {
        throw usage_error(
            fmt::format("{}: {} are neither sorted nor filtered by it", found->name, kind.command));
    }
    return static_cast<size_t>(found - kind.fields.begin());
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
    const field& target = kind.fields[index_of(kind, word.substr(0, equals))];
    return {target, parse_value(target, word.substr(equals + 1))};
}

void check_required(const record_kind& kind, const std::vector<char>& record) {
    const char* name = kind.adder.required;
    if (name == nullptr) return;
    const value content = read_value(kind.fields[index_of(kind, name)], record.data());
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

// --- The query ----------------------------------------------------------------------------------

row_filter parse_filter(const record_kind& kind, const std::string& filter) {
    if (filter.empty()) return {};
    const assignment wanted = parse_assignment(kind, filter);
    const std::string text = plain_text(wanted.content);
    // The daemon takes an empty value for no filter at all and would list everything.
    if (text.empty()) {
        throw usage_error(
            fmt::format("{}: rows cannot be filtered by an empty text", wanted.target.name));
    }
    return {wanted.target.name, text};
}

db_query_cond make_query(const record_kind& kind, const list_request& request) {
    db_query_cond cond = to_query(parse_filter(kind, request.filter));
    const bool by_page = request.start < 0;
    cond.start = by_page ? (request.page_number - 1) * request.per_page : request.start;
    cond.count = by_page ? request.per_page : request.count;
    cond.order_by = static_cast<int64_t>(index_of(kind, request.order));
    cond.order_style = request.descending ? 1 : 0;
    return cond;
}

// Reads one page and prints it on standard output. Throws usage_error for a field that the records
// do not have and for a value that cannot be one of the field's.
exit_status list_records(const record_kind& kind, const list_request& request) {
    const db_query_cond cond = make_query(kind, request);
    const page result = kind.list(cond);
    check_read(result);
    const listing shown_rows = {kind, result, static_cast<uint64_t>(cond.start),
                                !request.filter.empty()};
    if (request.as_json) {
        print_json(shown_rows);
    } else {
        print_table(shown_rows, request.wide);
    }
    check_counted(result);
    return done;
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

void declare_adder(command_line& line, CLI::App& list, const record_kind& kind) {
    const auto words = std::make_shared<std::vector<std::string>>();
    CLI::App* add =
        list.add_subcommand(kind.adder.command, fmt::format("Record one {}", kind.singular));
    add->add_option("fields", *words, "The fields that are not to be empty or 0")
        ->type_name("FIELD=VALUE")
        ->required();
    add->footer(field_help(kind, true));
    line.runs(add, [&kind, words] { return add_record(kind, *words); });
}

}  // namespace

CLI::App* declare_records(command_line& line, const record_kind& kind) {
    const auto request = std::make_shared<list_request>();
    CLI::App* list = line.app.add_subcommand(kind.command, fmt::format("List {}", kind.what));
    declare_list_options(*list, *request);
    list->footer(field_help(kind, false));
    line.runs(list, [&kind, request] { return list_records(kind, *request); });
    if (kind.adder.command != nullptr) declare_adder(line, *list, kind);
    declare_removal(line, *list, kind);
    return list;
}

void declare_tables(command_line& line) {
    for (const record_kind& kind : record_kinds()) {
        if (std::string_view(kind.command) != blocks_command) (void)declare_records(line, kind);
    }
}
