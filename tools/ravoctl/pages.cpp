// All rows of a kind, read page by page.
#include "pages.h"

#include <fmt/format.h>

#include <cstring>
#include <optional>

#include "bus.h"

namespace {

// Lists narrow ids to 32 bits, so their order is that of unsigned numbers.
uint32_t id_of(const record_kind& kind, const char* row) {
    return static_cast<uint32_t>(std::get<int64_t>(read_value(kind.fields[0], row)));
}

template <size_t size>
void copy_text(char (&to)[size], const std::string& text) {
    if (text.size() >= size) {
        throw usage_error(fmt::format("a filter's value takes at most {} bytes", size - 1));
    }
    memcpy(to, text.c_str(), text.size() + 1);
}

}  // namespace

db_query_cond to_query(const row_filter& filter) {
    db_query_cond query = {};
    copy_text(query.field, filter.field);
    copy_text(query.value, filter.value);
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

void for_each_row(const record_kind& kind, const row_filter& filter,
                  const std::function<bool(const char* row)>& take, int64_t rows_on_page) {
    constexpr int64_t descending = 1;
    db_query_cond query = to_query(filter);
    query.count = rows_on_page;
    query.order_style = descending;
    std::optional<uint32_t> last;
    while (true) {
        const page rows = kind.list(query);
        check_read(rows);
        check_counted(rows);
        for (uint64_t n = 0; n < rows.count; ++n) {
            const char* row = rows.rows.get() + n * kind.size;
            const uint32_t id = id_of(kind, row);
            if (last && id >= *last) continue;
            if (!take(row)) return;
            last = id;
        }
        if (rows.count < static_cast<uint64_t>(query.count)) return;
        query.start += query.count;
    }
}
