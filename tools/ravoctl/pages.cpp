// All rows of a kind, read page by page.
#include "pages.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>
#include <unordered_set>

#include "bus.h"

namespace {

template <size_t size>
void copy_text(char (&to)[size], const std::string& text) {
    if (text.size() >= size) {
        throw usage_error(fmt::format("a filter's value takes at most {} bytes", size - 1));
    }
    memcpy(to, text.c_str(), text.size() + 1);
}

}  // namespace

// Lists narrow ids to 32 bits.
uint32_t id_of(const record_kind& kind, const char* row) {
    return static_cast<uint32_t>(std::get<int64_t>(read_value(kind.fields[0], row)));
}

db_query_cond to_query(const row_filter& filter) {
    db_query_cond query = {};
    copy_text(query.field, filter.field);
    copy_text(query.value, filter.value);
    query.order_by = static_cast<int64_t>(filter.order_by);
    return query;
}

void check_read(const page& rows) {
    if (!rows.was_read) throw unread_failure();
}

void check_counted(const page& rows) {
    if (rows.total != count_failed) return;
    throw failure(unanswered,
                  "ravod could not count the rows, so the list may lack some; its log file tells "
                  "why");
}

uint64_t count_rows(const record_kind& kind) {
    const page none = kind.list(to_query({}));
    check_read(none);
    check_counted(none);
    return none.total;
}

uint64_t for_each_row(const record_kind& kind, const row_filter& filter,
                      const std::function<bool(const char* row)>& take, int64_t rows_on_page) {
    constexpr int64_t descending = 1;
    db_query_cond query = to_query(filter);
    query.count = rows_on_page;
    query.order_style = descending;
    std::unordered_set<uint32_t> seen;
    while (true) {
        const page rows = kind.list(query);
        check_read(rows);
        check_counted(rows);
        for (uint64_t n = 0; n < rows.count; ++n) {
            const char* row = rows.rows.get() + n * kind.size;
            if (seen.insert(id_of(kind, row)).second && !take(row)) return rows.total;
        }
        if (rows.count < static_cast<uint64_t>(query.count)) return rows.total;
        query.start += query.count;
    }
}

uint32_t newest_id(const record_kind& kind) {
    uint32_t id = 0;
    const auto take = [&](const char* row) {
        id = id_of(kind, row);
        return false;
    };
    (void)for_each_row(kind, {}, take, 1);
    return id;
}

std::vector<std::string> rows_after(const record_kind& kind, const row_filter& filter,
                                    uint32_t last_id) {
    constexpr int64_t rows_on_page = 100;  // few are new
    std::vector<std::string> rows;
    const auto take = [&](const char* row) {
        if (id_of(kind, row) <= last_id) return false;
        rows.emplace_back(row, kind.size);
        return true;
    };
    (void)for_each_row(kind, filter, take, rows_on_page);
    std::reverse(rows.begin(), rows.end());
    return rows;
}

void follow_rows(const record_kind& kind, const row_filter& filter, uint32_t last_id,
                 const std::function<void(const std::vector<const char*>& rows)>& take) {
    using clock = std::chrono::steady_clock;
    constexpr clock::duration usual_pause = std::chrono::seconds(1);
    constexpr int largest_share = 20;  // of the time, a twentieth at most is spent in looking
    while (true) {
        const clock::time_point begin = clock::now();
        const std::vector<std::string> newer = rows_after(kind, filter, last_id);
        std::vector<const char*> rows(newer.size());
        std::transform(newer.begin(), newer.end(), rows.begin(),
                       [](const std::string& row) { return row.data(); });
        if (!rows.empty()) {
            last_id = id_of(kind, rows.back());
            take(rows);
        }
        std::this_thread::sleep_for(std::max(usual_pause, largest_share * (clock::now() - begin)));
    }
}
