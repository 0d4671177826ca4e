// Listing and adding records: the same for every kind of record.
#include "list.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <set>

#include "bus.h"
#include "output.h"
#include "text.h"

namespace {

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

exit_status print_answer(const record_kind& kind, const std::string& answer) {
    if (!answer.empty()) {
        fmt::print("{}\n", escaped(answer));
        return done;
    }
    fmt::print(stderr, "ravoctl: ravod could not store the {}; its log file tells why\n",
               kind.singular);
    return unanswered;
}

// --- The query ----------------------------------------------------------------------------------

template <size_t size>
void copy_text(char (&to)[size], const std::string& text) {
    if (text.size() >= size) {
        throw usage_error(fmt::format("a filter's value takes at most {} bytes", size - 1));
    }
    memcpy(to, text.c_str(), text.size() + 1);
}

void set_filter(const record_kind& kind, const std::string& filter, db_query_cond& cond) {
    if (filter.empty()) return;
    const assignment wanted = parse_assignment(kind, filter);
    const std::string text = plain_text(wanted.content);
    // The daemon takes an empty value for no filter at all and would list everything.
    if (text.empty()) {
        throw usage_error(
            fmt::format("{}: rows cannot be filtered by an empty text", wanted.target.name));
    }
    copy_text(cond.field, wanted.target.name);
    copy_text(cond.value, text);
}

db_query_cond make_query(const record_kind& kind, const list_request& request) {
    db_query_cond cond = {};
    const bool by_page = request.start < 0;
    cond.start = by_page ? (request.page_number - 1) * request.per_page : request.start;
    cond.count = by_page ? request.per_page : request.count;
    cond.order_by = static_cast<int64_t>(index_of(kind, request.order));
    cond.order_style = request.descending ? 1 : 0;
    set_filter(kind, request.filter, cond);
    return cond;
}

}  // namespace

exit_status list_records(const record_kind& kind, const list_request& request) {
    const db_query_cond cond = make_query(kind, request);
    const page result = kind.list(cond);
    if (!result.was_read) return report_unread();
    const listing shown_rows = {kind, result, static_cast<uint64_t>(cond.start),
                                !request.filter.empty()};
    if (request.as_json) {
        print_json(shown_rows);
    } else {
        print_table(shown_rows, request.wide);
    }
    if (result.total != count_failed) return done;
    fmt::print(stderr,
               "ravoctl: ravod could not count the rows, so the list may lack some; "
               "its log file tells why\n");
    return unanswered;
}

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
    if (outcome.result != 0) return report_failure(daemon_endpoint, outcome.result);
    if (outcome.answer) return print_answer(kind, *outcome.answer);
    return done;
}
