// Listing and adding records: the same for every kind of record.
#pragma once

#include <string>
#include <vector>

#include "failure.h"
#include "records.h"

inline constexpr int64_t largest_page = 100000;  // rows that the daemon shows at all
inline constexpr int64_t default_page = 20;

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

// Reads one page and prints it on standard output. Throws usage_error for a field that the records
// do not have and for a value that cannot be one of the field's.
exit_status list_records(const record_kind& kind, const list_request& request);

// Sends one record, filled from words "FIELD=VALUE"; the other fields are empty or 0. Prints what
// the daemon answers, if the kind has an answer. Throws usage_error as above, and when a required
// field is missing.
exit_status add_record(const record_kind& kind, const std::vector<std::string>& words);
