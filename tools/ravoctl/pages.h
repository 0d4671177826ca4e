// All rows of a kind, read page by page.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "records.h"

// Rows on a page: a page costs tens of milliseconds with 100000 rows in the table, however small it
// is, and 20 MB where its rows are large.
inline constexpr int64_t page_rows = 4000;

// Rows that the daemon shows, and counts, at most.
inline constexpr uint64_t most_rows = 100000;

// Which rows, and in which order.
struct row_filter {
    std::string field = {};  // name of a column; empty: all rows
    std::string value = {};  // as SQL compares it; must not be empty
    size_t order_by = 0;     // index of the column that is largest in the first row
};

// A query for these rows. Throws usage_error for a value that is too long.
db_query_cond to_query(const row_filter& filter);

// Throws failure unless the page was read.
void check_read(const page& rows);

// Throws failure unless the rows of the page's table could be counted.
void check_counted(const page& rows);

// The rows of a kind's table. Throws failure when it could not be read or counted.
uint64_t count_rows(const record_kind& kind);

// Hands every row that the daemon shows to the function, the newest first unless the filter has
// another order, until the function returns false. A row that slips onto the next page while one is
// read comes once, and rows that are recorded meanwhile do not come. Returns the rows of the whole
// table. Throws failure when a page was not read, or its rows could not be counted: no row means
// that there is none.
uint64_t for_each_row(const record_kind& kind, const row_filter& filter,
                      const std::function<bool(const char* row)>& take,
                      int64_t rows_on_page = page_rows);

// The id of the row that was recorded last; 0 without any.
uint32_t newest_id(const record_kind& kind);

uint32_t id_of(const record_kind& kind, const char* row);

// The rows with larger ids, in the order of their recording.
std::vector<std::string> rows_after(const record_kind& kind, const row_filter& filter,
                                    uint32_t last_id);

// Waits for rows with larger ids, and hands them over as they come, all of a look at once and in
// the order of their recording. Looks every second, or less often where a look takes long. Ends by
// throwing failure only.
[[noreturn]] void follow_rows(
    const record_kind& kind, const row_filter& filter, uint32_t last_id,
    const std::function<void(const std::vector<const char*>& rows)>& take);
