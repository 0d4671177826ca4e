// Which rows of a list are wanted, in which order, and how many.
#include "selection.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <ctime>

#include "failure.h"
#include "text.h"
#include "time_words.h"

namespace {

constexpr uint64_t usual_count = 20;
constexpr int64_t latest_time = 253'402'300'799;  // the end of the year 9999

std::optional<int64_t> parse_time(const char* option, const std::string& text, int64_t now) {
    if (text.empty()) return std::nullopt;
    const auto seconds = parse_time_words(text, now);
    if (seconds && 0 <= *seconds && *seconds <= latest_time) return seconds;
    throw usage_error(
        fmt::format("{}: \"{}\" is no time; it takes {}", option, escaped(text), time_words_help));
}

// Everything since a time is shown; without one, as much as fits on a screen.
std::optional<uint64_t> parse_count(const selection_request& request) {
    const std::string& text = request.count;
    if (text == "all" || (text.empty() && !request.since.empty())) return std::nullopt;
    if (text.empty()) return usual_count;
    uint64_t count = 0;
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), count);
    if (error == std::errc() && stop == text.data() + text.size()) return count;
    throw usage_error(fmt::format("-n: \"{}\" is neither a number nor \"all\"", escaped(text)));
}

bool is_number(const std::string& text) {
    return !text.empty() && text.find_first_not_of("-0123456789") == std::string::npos;
}

// A row without an end lasts.
std::optional<int64_t> time_of(const value& v) {
    const auto* seconds = std::get_if<uint64_t>(&v);
    if (seconds == nullptr) return std::nullopt;
    return static_cast<int64_t>(std::min<uint64_t>(*seconds, latest_time));
}

}  // namespace

// --- The command line ---------------------------------------------------------------------------

void declare_filter_options(cli_command app, selection_request& request, const option_fields& by) {
    const auto help = [](const char* name) {
        return fmt::format("Only rows with this value in {}", name);
    };
    if (by.user != nullptr) {
        app.add_option("-u,--user", request.user, help(by.user)).type_name("NAME");
    }
    if (by.source != nullptr) {
        app.add_option("--source", request.source, help(by.source)).type_name("ADDRESS");
    }
    if (by.type != nullptr) {
        app.add_option("--type", request.type,
                       "Only this type: pptp, l2tp, openvpn, tessel or a number")
            .type_name("TYPE");
    }
    app.add_option("-S,--since", request.since,
                   fmt::format("Only rows from this time on, all of them; {}", time_words_help))
        .type_name("TIME");
    app.add_option("-U,--until", request.until, "Only rows up to this time").type_name("TIME");
}

void declare_order_options(cli_command app, selection_request& request) {
    app.add_option("--filter", request.filters, "Only rows with this value in this field")
        .type_name("FIELD=VALUE")
        .one_value_each();
    app.add_option(
           "-n,--lines", request.count,
           "How many rows to show, the last ones of the order, or \"all\"; 20 if not given, "
           "or all since a time")
        .type_name("N");
    app.add_option("--sort", request.sort, "Field to sort by, the largest value last")
        .type_name("FIELD");
    app.add_flag("-r,--reverse", request.reverse, "The other way around: the newest first");
}

void declare_selection_options(cli_command app, selection_request& request,
                               const option_fields& by) {
    declare_filter_options(app, request, by);
    declare_order_options(app, request);
}

// --- Conditions ---------------------------------------------------------------------------------

time_span parse_span(const std::string& since, const std::string& until, int64_t now) {
    const time_span span = {parse_time("--since", since, now), parse_time("--until", until, now)};
    if (span.since && span.until && *span.since >= *span.until) {
        throw usage_error("--since is not before --until");
    }
    return span;
}

selection::selection(const selection_request& request, const char* list,
                     std::span<const field> fields, const option_fields& by)
    : list_(list),
      fields_(fields),
      span_(parse_span(request.since, request.until, time(nullptr))),
      begin_(index_of(by.begin)),
      end_(index_of(by.end)),
      count_(parse_count(request)),
      usual_sort_(index_of(by.order)),
      sort_(request.sort.empty() ? usual_sort_ : index_of(request.sort)),
      is_reverse_(request.reverse) {
    add(by.user, request.user);
    add(by.source, request.source);
    for (const std::string& word : request.filters) add_filter(word);
    add_type(by.type, request.type);
}

size_t selection::index_of(const std::string& name) const {
    const auto named = [&name](const field& f) { return name == f.name; };
    const auto found = std::find_if(fields_.begin(), fields_.end(), named);
    if (found != fields_.end()) return static_cast<size_t>(found - fields_.begin());
    throw usage_error(fmt::format("{} has no field \"{}\"; its fields are {}", list_, escaped(name),
                                  names_of(fields_)));
}

void selection::add(const char* field_name, const std::optional<std::string>& text) {
    if (!text) return;
    const size_t index = index_of(field_name);
    conditions_.push_back({index, plain_text(parse_value(fields_[index], *text)), false});
}

void selection::add_type(const char* field_name, const std::optional<std::string>& text) {
    if (!text || is_number(*text)) return add(field_name, text);
    const size_t index = index_of(field_name);
    (void)parse_value(fields_[index], *text);
    conditions_.push_back({index, *text, true});
}

void selection::add_filter(const std::string& word) {
    const size_t equals = word.find('=');
    if (equals == std::string::npos) {
        throw usage_error(fmt::format("\"{}\" is not of the form FIELD=VALUE", escaped(word)));
    }
    const std::string name = word.substr(0, equals);
    const std::string text = word.substr(equals + 1);
    if (fields_[index_of(name)].is == meaning::vpn_type) return add_type(name.c_str(), text);
    add(name.c_str(), text);
}

// The daemon takes an empty value for no filter at all, and knows the columns of its tables only.
const selection::condition* selection::server_condition() const {
    const auto found =
        std::find_if(conditions_.begin(), conditions_.end(), [this](const condition& c) {
            return !c.by_name && !c.text.empty() && fields_[c.index].from != origin::computed;
        });
    return found == conditions_.end() ? nullptr : &*found;
}

row_filter selection::server_filter() const {
    const condition* best = server_condition();
    if (best == nullptr) return {};
    return {fields_[best->index].name, best->text};
}

bool selection::is_all_for_server() const {
    const size_t servers = server_condition() == nullptr ? 0 : 1;
    return conditions_.size() == servers && !span_.since && !span_.until;
}

bool selection::is_in_span(const row_values& row) const {
    const auto begin = time_of(row[begin_]);
    const auto end = time_of(row[end_]);
    return (!span_.until || !begin || *begin <= *span_.until) &&
           (!span_.since || !end || *end >= *span_.since);
}

bool selection::matches(const row_values& row) const {
    const auto holds = [this, &row](const condition& c) {
        const value& v = row[c.index];
        return c.text == (c.by_name ? cell_text(fields_[c.index], v) : plain_text(v));
    };
    return is_in_span(row) && std::all_of(conditions_.begin(), conditions_.end(), holds);
}

// --- Order --------------------------------------------------------------------------------------

row_list selection::arrange(std::vector<row_values> newest_first) const {
    row_list list = {std::move(newest_first)};
    std::reverse(list.rows.begin(), list.rows.end());
    std::stable_sort(
        list.rows.begin(), list.rows.end(),
        [this](const row_values& a, const row_values& b) { return a[sort_] < b[sort_]; });
    if (count_ && *count_ < list.rows.size()) {
        list.has_more = true;
        list.rows.erase(list.rows.begin(), list.rows.end() - static_cast<ptrdiff_t>(*count_));
    }
    if (is_reverse_) std::reverse(list.rows.begin(), list.rows.end());
    return list;
}

std::string selection::describe(const row_list& list, const char* what) const {
    const bool has_conditions = !conditions_.empty() || span_.since || span_.until;
    const size_t shown = list.rows.size();
    const std::string rows = fmt::format("{}{}", what, shown == 1 ? "" : "s");
    std::string text;
    if (shown == 0) {
        text = fmt::format("no {}", rows);
    } else if (!list.has_more) {
        text = fmt::format("{} {}", shown, rows);
    } else if (fields_[sort_].is == meaning::time ||
               fields_[sort_].name == std::string_view("id")) {
        text = fmt::format("the newest {} {}", shown, rows);
    } else {
        text = fmt::format("the {} {} with the largest {}", shown, rows, fields_[sort_].name);
    }
    if (has_conditions) text += shown == 1 ? " that matches" : " that match";
    if (list.total && (shown == 0 || has_conditions || list.has_more)) {
        text += fmt::format("; the table has {}", *list.total);
    }
    if (list.has_more && shown > 0) text += "; -n all shows all";
    return text;
}
