// Which rows of a list are wanted, in which order, and how many.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "command_line.h"
#include "output.h"
#include "pages.h"
#include "records.h"

// As the user wrote it.
struct selection_request {
    std::optional<std::string> user = {};
    std::optional<std::string> source = {};
    std::optional<std::string> type = {};
    std::string since = {};
    std::string until = {};
    std::vector<std::string> filters = {};  // "FIELD=VALUE"
    std::string count = {};
    std::string sort = {};
    bool reverse = false;
};

// Declares -u, --source, --type, -S and -U, as far as the list has their fields.
void declare_filter_options(cli_command app, selection_request& request, const option_fields& by);

// Declares --filter, and -n, --sort and -r.
void declare_order_options(cli_command app, selection_request& request);

// All of them.
void declare_selection_options(cli_command app, selection_request& request,
                               const option_fields& by);

struct time_span {
    std::optional<int64_t> since;  // seconds since the epoch
    std::optional<int64_t> until;
};

// Throws usage_error for what is no time, and for a span without any.
time_span parse_span(const std::string& since, const std::string& until, int64_t now);

class selection {
  public:
    // Throws usage_error for fields that the list does not have and for values that cannot be one
    // of the field's. List, fields and names must live as long as this.
    selection(const selection_request& request, const char* list, std::span<const field> fields,
              const option_fields& by);

    bool matches(const row_values& row) const;

    // Sorts the rows, which come the newest first, and leaves those that are wanted: the last ones
    // of the order, which are the newest when nothing else was asked.
    row_list arrange(std::vector<row_values> newest_first) const;

    // The one condition that the daemon can look after.
    row_filter server_filter() const;
    bool is_all_for_server() const;

    const time_span& span() const { return span_; }
    std::optional<uint64_t> count() const { return count_; }  // none: all
    size_t sort_field() const { return sort_; }
    size_t begin_field() const { return begin_; }
    bool is_in_usual_order() const { return sort_ == usual_sort_; }

    // "the newest 20 rows that match; -n all shows all", ...; what is one of them.
    std::string describe(const row_list& list, const char* what) const;

  private:
    struct condition {
        size_t index;
        std::string text;  // of the value in SQL, or in a table when by_name
        bool by_name;      // a type of VPN has several numbers
    };

    void add(const char* field_name, const std::optional<std::string>& text);
    void add_type(const char* field_name, const std::optional<std::string>& text);
    void add_filter(const std::string& word);
    size_t index_of(const std::string& name) const;
    const condition* server_condition() const;
    bool is_in_span(const row_values& row) const;

    const char* list_;
    std::span<const field> fields_;
    std::vector<condition> conditions_;
    time_span span_;
    size_t begin_;
    size_t end_;
    std::optional<uint64_t> count_;
    size_t usual_sort_;
    size_t sort_;
    bool is_reverse_;
};
