// The event_log table: a place for events that stores nothing. Persistent, with the id column only.
#include "ravod_db_event_handler.h"

#include "table_store.h"

namespace {

constinit table_state event_log{.name = "event_log"};

// Counts a row and gives it its one byte. Without memory for it the row is dropped, so that count
// and data agree.
int event_callback(void* p_data, int /*num_fields*/, char** /*p_fields*/, char** /*p_col_names*/) {
    db_event_query& result = **static_cast<db_event_query**>(p_data);
    void* block = result.data == nullptr ? calloc(1, sizeof(db_event_data))
                                         : realloc(result.data, result.count + 1);
    if (block == nullptr) return 0;
    result.data = static_cast<db_event_data*>(block);
    memset(&result.data[result.count], 0, sizeof(db_event_data));
    ++result.count;
    return 0;
}

}  // namespace

int create_event_db() { return create_table(event_log, HERE); }

int insert_event_data(db_event_data* /*data*/) { return 0; }

int delete_event_data(int id) { return delete_row(event_log, id, HERE); }

// Deliberate: not guarded execution. A connection that cannot be opened is not logged, and a failed
// statement leaves the connection open and its error text unreleased.
int select_event_data(db_query_cond* cond, db_event_query** result) {
    if (!is_column_index(event_log, cond->order_by)) return -1;
    const sql_text statement = sql("SELECT * FROM event_log ORDER BY %s %s LIMIT %ld OFFSET %ld;",
                                   event_log.__db_fields[cond->order_by],
                                   direction(cond->order_style), cond->count, cond->start);
    begin_operation(event_log);
    if (open_db(event_log) != SQLITE_OK) {
        sqlite3_close(event_log.__db__);
        event_log.__db__ = nullptr;
    }
    char* error = nullptr;
    const int rc = statement ? sqlite3_exec(event_log.__db__, statement.get(), event_callback,
                                            static_cast<void*>(result), &error)
                             : SQLITE_NOMEM;
    if (rc != SQLITE_OK) {
        call_site at = HERE;
        at.function = "select_stmt";
        log_line(at, "ERROR", "Error in select statement %s [%s].\n", text_or_null(statement.get()),
                 text_or_null(error));
    }
    return 0;
}

int finish_event_db() { return finish_table(event_log, HERE); }
