// All rows of a kind, read page by page.
#pragma once

#include <functional>
#include <string>

#include "records.h"

// Rows on a page: a page costs tens of milliseconds with 100000 rows in the table, however small it
// is, and 20 MB where its rows are large.
inline constexpr int64_t page_rows = 4000;

struct row_filter {
    std::string field = {};  // name of a column; empty: all rows
    std::string value = {};  // as SQL compares it; must not be empty
};

// A query for these rows. Throws usage_error for a value that is too long.
db_query_cond to_query(const row_filter& filter);

// Throws failure unless the page was read.
void check_read(const page& rows);

// Throws failure unless the rows of the page's table could be counted.
void check_counted(const page& rows);

// The rows of a kind's table, of which the daemon counts 100000 at most. Throws failure when it
// could not be read or counted.
uint64_t count_rows(const record_kind& kind);

// Hands every row that the daemon shows to the function, the newest first, until the function
// returns false. A row that slips onto the next page while one is read comes once, and rows that
// are recorded meanwhile do not come.
// Throws failure when a page was not read, or its rows could not be counted: no row means that
// there is none.
void for_each_row(const record_kind& kind, const row_filter& filter,
                  const std::function<bool(const char* row)>& take,
                  int64_t rows_on_page = page_rows);
