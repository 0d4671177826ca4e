// The machinery that every table module shares: statement texts, guarded execution, paging.
//
// A module declares its columns once and owns one table<row>. Below the thin template stand plain
// functions over table_state, the module's private state. Statements are plain SQL text run through
// sqlite3_exec. What holds for all of them:
//
// 1. Guarded execution: a closed connection is opened, the statement runs, and a failure is logged
//    and closes the connection, so that the next statement starts on a fresh one. A reopened
//    connection runs no PRAGMA and no CREATE, so a temporary table is gone from then on.
// 2. Insert, delete, clean, optimize and finish report nothing to their caller; the log is the only
//    witness.
// 3. Log lines carry the name of the public operation that asked, handed down as a call_site.
// 4. Requests come one at a time, so nothing is locked. Locks on the database file that another
//    program holds are waited for, all statements of an operation together, for at most
//    lock_patience; then the statements fail.
#ifndef TABLE_STORE_H
#define TABLE_STORE_H

#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <span>
#include <string_view>
#include <thread>
#include <type_traits>

#include "page_memory.h"
#include "ravo_log.h"
#include "ravo_records.h"
#include "record_field.h"

// --- Bounds -------------------------------------------------------------------------------------

inline constexpr char database_path[] = "/etc/config/ravo/ravo.db";
inline constexpr int64_t row_cap = 101999;  // rows after any insert, at most
inline constexpr int64_t trim_rows = 2000;  // oldest rows that go when the cap is passed
inline constexpr int64_t visible_rows =
    100000;                                     // newest rows that a query sees, page and total cap
inline constexpr size_t statement_size = 4096;  // bytes of a statement buffer, its NUL included
inline constexpr size_t small_rows_size =
    size_t{256} * 1024;                        // bytes of a small page's block, at most
inline constexpr size_t field_cap = 128;       // column names that a module can hold
inline constexpr size_t field_name_size = 40;  // bytes of a column name, its NUL included

// Waiting for another program's lock. The time is less than half of what any caller waits, because
// those behind it in the queue wait as well. It is looked for often, so that a program that lets go
// for a moment only is not missed.
inline constexpr std::chrono::seconds lock_patience{2};
inline constexpr std::chrono::milliseconds lock_pause{2};

// A filter's column is the caller's text, so its statement is fenced in (see filter_fence).
// SQLite looks at the clock between some of its instructions only; the sizes keep each of them
// short, and the number of functions what lies between two looks.
inline constexpr std::chrono::seconds filter_budget{2};
inline constexpr int filter_check_steps = 100;    // SQLite's instructions between two looks
inline constexpr int filter_value_size = 16384;   // bytes of any value, above those of any row
inline constexpr int filter_pattern_size = 1100;  // bytes of a LIKE pattern, above any text field
inline constexpr int filter_functions = 16;       // functions and LIKEs in a filter

// --- Columns ------------------------------------------------------------------------------------

// How a kind is written in CREATE and, as a conversion, in INSERT and UPDATE.
struct value_format {
    const char* sql_type;
    const char* conversion;
};

constexpr value_format format_of(value_kind kind) {
    switch (kind) {
        case value_kind::text:
            return {"TEXT", "'%q'"};
        case value_kind::int32:
            return {"INTEGER", "%d"};
        case value_kind::int64:
            return {"INTEGER", "%ld"};
        case value_kind::uint64:
            return {"INTEGER", "%lu"};
        case value_kind::text_pointer:
            return {"TEXT", "'%s'"};  // deliberate: not escaped
    }
    return {};
}

// One column after id, and the field of the row record that fills it (see FIELD).
struct column {
    const char* name;
    size_t offset;
    size_t size;
    value_kind kind;
    value_format format = format_of(kind);
};

static_assert(sizeof(long) == sizeof(int64_t), "\"%ld\" and \"%lu\" stand for 64 bits");

// --- A module's state ---------------------------------------------------------------------------

struct table_state {
    // What the module declares.
    const char* name;
    bool temporary = false;
    std::span<const column> columns{};

    // What the operations keep. Private to the module, for the life of the process.
    sqlite3* __db__ = nullptr;                       // null: closed
    std::chrono::nanoseconds lock_patience_left{0};  // of the operation that runs
    char __db_file[statement_size] = {};             // empty until the first create
    char __db_table_name_str[statement_size] = {};
    char __db_create_str[statement_size] = {};  // empty: not yet built
    char __db_insert_str[statement_size] = {};  // a template: one conversion for each value
    char __db_delete_str[statement_size] = {};  // grows with each delete and clean, see delete_row
    char __db_update_str[statement_size] = {};
    char __db_insert_field[statement_size] = {};
    char __db_insert_arg[statement_size] = {};
    char __db_fields[field_cap][field_name_size] = {};  // "id" first; order_by is an index into it
    int32_t __db_field_index__ = 0;
    int32_t __is_first_field = 1;  // never set again, so a list built anew starts with a comma
};

// --- Statement texts ----------------------------------------------------------------------------

struct sqlite_deleter {
    void operator()(char* text) const { sqlite3_free(text); }
};

// A statement made by SQLite; null when there was no memory for it.
using sql_text = std::unique_ptr<char, sqlite_deleter>;

template <class... Args>
sql_text sql(const char* format, Args... args) {
    return sql_text(sqlite3_mprintf(format, args...));
}

// Appends the pieces to a buffer, all of them or, when they do not fit, none.
template <size_t size>
bool append(char (&buffer)[size], std::initializer_list<std::string_view> pieces) {
    size_t end = strlen(buffer);
    size_t room = size - 1 - end;
    for (const std::string_view piece : pieces) {
        if (piece.size() > room) return false;
        room -= piece.size();
    }
    for (const std::string_view piece : pieces) {
        memcpy(buffer + end, piece.data(), piece.size());
        end += piece.size();
    }
    buffer[end] = '\0';
    return true;
}

// Copies a template ("%q", "%s", "%d", "%ld", "%lu" and literal text) and calls
// append_value(out, n) in place of the n-th conversion. There is a value for each conversion,
// however often a template has grown by repeated creates and deletes.
template <class AppendValue>
sql_text expand(const char* form, AppendValue append_value) {
    if (*form == '\0') return sql("");  // a finished module's INSERT: not the same as no memory
    sqlite3_str* out = sqlite3_str_new(nullptr);
    for (size_t n = 0; *form != '\0'; ++n) {
        const size_t literal = strcspn(form, "%");
        sqlite3_str_append(out, form, static_cast<int>(literal));
        form += literal;
        if (*form == '\0') break;
        append_value(out, n);
        form += 1 + strspn(form + 1, "l") + 1;
    }
    return sql_text(sqlite3_str_finish(out));
}

template <class Value>
Value read_value(const void* record, size_t offset) {
    Value value;
    memcpy(&value, static_cast<const char*>(record) + offset, sizeof value);
    return value;
}

// As "%d", "%ld" and "%lu" write it.
template <class Number>
void append_number(sqlite3_str* out, Number number) {
    std::array<char, 24> digits;
    const char* end = std::to_chars(digits.begin(), digits.end(), number).ptr;
    sqlite3_str_append(out, digits.data(), static_cast<int>(end - digits.data()));
}

// As "%q" writes it, which takes several times as long for a text that has no quote to double.
inline void append_quoted(sqlite3_str* out, const char* text, size_t size) {
    const size_t length = strnlen(text, size);
    if (memchr(text, '\'', length) == nullptr) {
        sqlite3_str_append(out, text, static_cast<int>(length));
    } else {
        sqlite3_str_appendf(out, "%.*q", static_cast<int>(size), text);
    }
}

// Appends a record's field as its column's conversion does. A text is read up to the last byte but
// one of its array, so that an array without a NUL is cut there.
inline void append_field(sqlite3_str* out, const column& c, const void* record) {
    switch (c.kind) {
        case value_kind::text:
            append_quoted(out, static_cast<const char*>(record) + c.offset, c.size - 1);
            break;
        case value_kind::int32:
            append_number(out, read_value<int32_t>(record, c.offset));
            break;
        case value_kind::int64:
            append_number(out, read_value<int64_t>(record, c.offset));
            break;
        case value_kind::uint64:
            append_number(out, read_value<uint64_t>(record, c.offset));
            break;
        case value_kind::text_pointer:
            sqlite3_str_appendf(out, "%s", read_value<const char*>(record, c.offset));
            break;
    }
}

// --- Connection and guarded execution -----------------------------------------------------------

inline void close_db(table_state& t, const call_site& at) {
    if (t.__db__ == nullptr) return;
    log_line(at, "WARN", "close db %p\n", static_cast<void*>(t.__db__));
    sqlite3_close(t.__db__);
    t.__db__ = nullptr;
}

// An operation of the store begins, with its whole patience.
inline void begin_operation(table_state& t) { t.lock_patience_left = lock_patience; }

// SQLite's busy handler: another program holds a lock. Returns 0 when the patience is at its end.
inline int wait_for_lock(void* state, int /*tries*/) {
    using clock = std::chrono::steady_clock;
    auto& left = static_cast<table_state*>(state)->lock_patience_left;
    if (left <= left.zero()) return 0;
    const clock::time_point start = clock::now();
    std::this_thread::sleep_for(lock_pause);
    left -= clock::now() - start;
    return 1;
}

// Opens the connection of a built module if it is closed. After a failure the handle may hold what
// SQLite has to say about it. Returns SQLite's code.
inline int open_db(table_state& t) {
    if (t.__db__ != nullptr || t.__db_file[0] == '\0') return SQLITE_OK;
    const int rc = sqlite3_open(t.__db_file, &t.__db__);
    if (rc == SQLITE_OK) sqlite3_busy_handler(t.__db__, wait_for_lock, &t);
    return rc;
}

// The first half of guarded execution.
inline void reopen_db(table_state& t, const call_site& at) {
    if (open_db(t) == SQLITE_OK) return;
    log_line(at, "ERROR", "open db failed, %s\n", sqlite3_errmsg(t.__db__));
    close_db(t, at);
}

using row_callback = int (*)(void* arg, int num_fields, char** p_fields, char** p_col_names);

// Hands rows on, but ends the statement at one with a value that there was no memory for: SQLite
// delivers that value as NULL, and fails only behind the row.
struct whole_rows {
    sqlite3* db;
    row_callback on_row;
    void* arg;

    static int pass_row(void* rows, int num_fields, char** p_fields, char** p_col_names) {
        const auto& self = *static_cast<const whole_rows*>(rows);
        if (sqlite3_errcode(self.db) == SQLITE_NOMEM) return -1;
        return self.on_row(self.arg, num_fields, p_fields, p_col_names);
    }
};

// The second half. A connection that could not be opened makes the statement fail like any other.
// Returns SQLite's code; operations that always succeed ignore it.
inline int execute(table_state& t, const sql_text& text, const call_site& at,
                   row_callback on_row = nullptr, void* arg = nullptr) {
    char* error = nullptr;
    whole_rows rows{t.__db__, on_row, arg};
    const row_callback pass_row = on_row != nullptr ? whole_rows::pass_row : nullptr;
    const int rc =
        text ? sqlite3_exec(t.__db__, text.get(), pass_row, &rows, &error) : SQLITE_NOMEM;
    if (rc != SQLITE_OK) {
        log_line(at, "ERROR", "sql = %s, err = %s\n", text_or_null(text.get()),
                 text_or_null(error));
        close_db(t, at);
    }
    sqlite3_free(error);
    if (rc != SQLITE_OK) log_line(at, "ERROR", "RET = %d\n", rc);
    return rc;
}

// Guarded execution whole.
inline int run(table_state& t, const sql_text& text, const call_site& at,
               row_callback on_row = nullptr, void* arg = nullptr) {
    reopen_db(t, at);
    return execute(t, text, at, on_row, arg);
}

// A base-10 integer narrowed to 32 bits; -1 for no value.
inline int32_t parse_int32(const char* text) {
    return text != nullptr ? static_cast<int32_t>(strtol(text, nullptr, 10)) : -1;
}

// The row callback of every query for one number. Deliberate: the number is narrowed to 32 bits.
// Returns -1, which makes the query fail, unless there is exactly one value.
inline int common_callback(void* p_number, int num_fields, char** p_fields,
                           char** /*p_col_names*/) {
    if (num_fields != 1 || p_fields == nullptr || p_fields[0] == nullptr) return -1;
    *static_cast<int64_t*>(p_number) = parse_int32(p_fields[0]);
    return 0;
}

// Runs a query for one number. Returns otherwise when there is no row or the query fails.
inline int64_t query_number(table_state& t, const sql_text& text, int64_t otherwise,
                            const call_site& at) {
    int64_t number = otherwise;
    (void)run(t, text, at, common_callback, &number);
    return number;
}

// --- Create and finish --------------------------------------------------------------------------

inline bool add_field_name(table_state& t, std::string_view name) {
    const auto index = static_cast<size_t>(t.__db_field_index__);
    if (index >= field_cap) return false;
    ++t.__db_field_index__;
    return append(t.__db_fields[index], {name});
}

// The first step of a create, when the module is not built: "id" and the heads of the four
// statements. Deliberate: what finish keeps is appended to, so after a finish the DELETE and UPDATE
// texts hold their heads twice.
inline bool add_heads(table_state& t) {
    const std::string_view name = t.name;
    t.__db_table_name_str[0] = '\0';
    t.__db_file[0] = '\0';
    return add_field_name(t, "id") && append(t.__db_table_name_str, {name}) &&
           append(t.__db_file, {database_path}) &&
           append(t.__db_create_str, {t.temporary ? "CREATE TEMPORARY TABLE IF NOT EXISTS "
                                                  : "CREATE  TABLE IF NOT EXISTS ",
                                      name, " (id INTEGER PRIMARY KEY AUTOINCREMENT UNIQUE"}) &&
           append(t.__db_delete_str, {"DELETE FROM ", name}) &&
           append(t.__db_update_str, {"UPDATE ", name, " SET "});
}

inline bool add_column(table_state& t, const column& c) {
    const std::string_view separator = t.__is_first_field == 1 ? "" : ", ";
    t.__is_first_field = 0;
    return add_field_name(t, c.name) &&
           append(t.__db_create_str, {", ", c.name, " ", c.format.sql_type}) &&
           append(t.__db_insert_field, {separator, c.name}) &&
           append(t.__db_insert_arg, {separator, c.format.conversion}) &&
           append(t.__db_update_str, {separator, c.name, " = ", c.format.conversion});
}

// Builds the statement texts. Deliberate: only the heads know that they stand already, so each
// further create appends the columns again. Returns false when something no longer fits.
inline bool build_statements(table_state& t) {
    if (t.__db_create_str[0] == '\0' && !add_heads(t)) return false;
    for (const column& c : t.columns) {
        if (!add_column(t, c)) return false;
    }
    t.__db_insert_str[0] = '\0';
    return append(t.__db_create_str, {");"}) &&
           append(t.__db_insert_str, {"INSERT OR REPLACE INTO ", t.name, " (", t.__db_insert_field,
                                      ") VALUES (", t.__db_insert_arg, ");"});
}

inline void run_pragmas(table_state& t) {
    // Deliberate: "ON" is 1, which SQLite calls NORMAL, and there is no journal. What a crash in
    // the middle of a transaction costs then is up to the VFS below.
    static constexpr const char* pragmas[] = {
        "PRAGMA page_size = 2048;",           "PRAGMA synchronous = ON;",
        "PRAGMA auto_vacuum = FULL;",         "PRAGMA journal_mode = OFF;",
        "PRAGMA default_cache_size = 10000;", "PRAGMA cache_size = 10000;",
    };
    for (const char* pragma : pragmas) {
        (void)sqlite3_exec(t.__db__, pragma, nullptr, nullptr, nullptr);
    }
}

// Returns 0 with the connection left open, or -1 when the database cannot be opened or the CREATE
// fails.
inline int create_table(table_state& t, const call_site& at) {
    begin_operation(t);
    const bool built = build_statements(t);
    if (open_db(t) != SQLITE_OK) {
        log_line(at, "ERROR", "rc NULL\n");
        close_db(t, at);
        return -1;
    }
    run_pragmas(t);
    char* error = nullptr;
    const int rc =
        built ? sqlite3_exec(t.__db__, t.__db_create_str, nullptr, nullptr, &error) : SQLITE_TOOBIG;
    if (rc == SQLITE_OK) return 0;
    log_line(at, "ERROR", "create db failed: %s\n",
             built ? text_or_null(error) : "too many columns for the statement buffers");
    sqlite3_free(error);
    close_db(t, at);
    return -1;
}

// Closes the connection and empties the texts that a create builds from nothing. Returns 0.
inline int finish_table(table_state& t, const call_site& at) {
    if (t.__db__ != nullptr) {
        // Spelled so on purpose: SQLite rejects it, so finish never vacuums.
        char statement[statement_size];
        sqlite3_snprintf(sizeof statement, statement, "VACCUM %s", t.__db_table_name_str);
        (void)sqlite3_exec(t.__db__, statement, nullptr, nullptr, nullptr);
        close_db(t, at);
    }
    if (t.__db_create_str[0] != '\0') {
        t.__db_create_str[0] = '\0';
        t.__db_insert_str[0] = '\0';
        t.__db_insert_field[0] = '\0';
        t.__db_insert_arg[0] = '\0';
    }
    return 0;
}

// Lets SQLite tidy up and give back memory, on an open connection only. Returns 0.
inline int optimize_table(table_state& t) {
    if (t.__db__ == nullptr) return 0;
    (void)sqlite3_exec(t.__db__, "PRAGMA optimize;", nullptr, nullptr, nullptr);
    (void)sqlite3_exec(t.__db__, "PRAGMA shrink_memory;", nullptr, nullptr, nullptr);
    return 0;
}

// --- Insert, delete, clean ----------------------------------------------------------------------

// The INSERT for one record. When the template names the columns more than once, so do the values.
inline sql_text insert_statement(const table_state& t, const void* record) {
    return expand(t.__db_insert_str, [&](sqlite3_str* out, size_t n) {
        append_field(out, t.columns[n % t.columns.size()], record);
    });
}

// The transaction frame of every insert, and the row cap. Returns 0.
inline int insert_row(table_state& t, const sql_text& insert, const call_site& at) {
    begin_operation(t);
    const char* name = t.__db_table_name_str;
    (void)run(t, sql("BEGIN TRANSACTION;"), at);
    (void)run(t, insert, at);
    const int64_t count = query_number(t, sql("SELECT Count(*) FROM %s;", name), 0, at);
    if (count > row_cap) {
        // The inner SELECT needs no order: SQLite walks the ids upwards, so the oldest rows go.
        (void)run(
            t,
            sql("DELETE from %s WHERE id IN (SELECT id from %s LIMIT %ld);", name, name, trim_rows),
            at);
    }
    (void)run(t, sql("END TRANSACTION;"), at);
    return 0;
}

// Deliberate: the condition is appended to the module's DELETE text itself and never taken away.
// From the second delete on the text goes on behind its first statement with something that SQLite
// rejects: the row goes, and an error is logged. When the buffer is full it stays as it is. Every
// "%lu" in the text stands for the id. Returns 0.
inline int delete_row(table_state& t, int64_t id, const call_site& at) {
    begin_operation(t);
    (void)append(t.__db_delete_str, {" WHERE id = %lu;"});
    (void)run(t,
              expand(t.__db_delete_str,
                     [id](sqlite3_str* out, size_t) { sqlite3_str_appendf(out, "%lu", id); }),
              at);
    return 0;
}

// Deliberate: runs the same growing text, unformatted. Before any delete it empties the table;
// after a delete SQLite rejects it, and after a clean every delete empties the table. Returns 0.
inline int clean_table(table_state& t, const call_site& at) {
    begin_operation(t);
    (void)append(t.__db_delete_str, {";"});
    (void)run(t, sql("%s", t.__db_delete_str), at);
    return 0;
}

// --- Paged query --------------------------------------------------------------------------------

// Fences in the page statement of a query with a filter, whose column is text from outside that
// SQLite would run as any SQL: for its lifetime the open connection only reads the module's own
// table, values stay small, and the statement is ended when it delivers too many rows or takes too
// long. A denial is a failed statement like any other.
class filter_fence {
  public:
    filter_fence(const table_state& table, row_callback callback, void* callback_arg)
        : t(table), db(table.__db__), on_row(callback), arg(callback_arg) {
        if (db == nullptr) return;
        sqlite3_set_authorizer(db, authorize, this);
        sqlite3_progress_handler(db, filter_check_steps, is_overdue, this);
        value_size = sqlite3_limit(db, SQLITE_LIMIT_LENGTH, filter_value_size);
        pattern_size = sqlite3_limit(db, SQLITE_LIMIT_LIKE_PATTERN_LENGTH, filter_pattern_size);
    }
    ~filter_fence() {
        if (db == nullptr || t.__db__ != db) return;  // a failed statement has closed it
        sqlite3_set_authorizer(db, nullptr, nullptr);
        sqlite3_progress_handler(db, 0, nullptr, nullptr);
        sqlite3_limit(db, SQLITE_LIMIT_LENGTH, value_size);
        sqlite3_limit(db, SQLITE_LIMIT_LIKE_PATTERN_LENGTH, pattern_size);
    }
    filter_fence(const filter_fence&) = delete;
    filter_fence& operator=(const filter_fence&) = delete;

    // The row callback of the fenced statement: hands rows on, and ends a statement that delivers
    // more than any page has, since a filter's text can cut off the LIMIT behind it.
    static int pass_row(void* fence, int num_fields, char** p_fields, char** p_col_names) {
        auto& self = *static_cast<filter_fence*>(fence);
        if (self.rows_left == 0) return -1;
        --self.rows_left;
        return self.on_row(self.arg, num_fields, p_fields, p_col_names);
    }

  private:
    using clock = std::chrono::steady_clock;

    // SQLite goes through all characters of a "%.2147483647c", half a minute long, though no value
    // may be so large.
    static bool may_take_long(const char* function) {
        return sqlite3_stricmp(function, "printf") == 0 || sqlite3_stricmp(function, "format") == 0;
    }
    // column is the name where the action is a function. database is null where the statement names
    // a table whose columns it does not read.
    static int authorize(void* arg, int action, const char* table, const char* column,
                         const char* database, const char* /*trigger*/) {
        if (action == SQLITE_SELECT) return SQLITE_OK;
        auto& self = *static_cast<filter_fence*>(arg);
        if (action == SQLITE_FUNCTION) {
            const bool is_allowed = !may_take_long(column) && --self.functions_left >= 0;
            return is_allowed ? SQLITE_OK : SQLITE_DENY;
        }
        if (action != SQLITE_READ) return SQLITE_DENY;
        const table_state& own = self.t;
        const bool is_own =
            sqlite3_stricmp(table, own.name) == 0 &&
            (database == nullptr || strcmp(database, own.temporary ? "temp" : "main") == 0);
        return is_own ? SQLITE_OK : SQLITE_DENY;
    }
    static int is_overdue(void* arg) {
        return clock::now() > static_cast<const filter_fence*>(arg)->end ? 1 : 0;
    }

    const table_state& t;
    sqlite3* const db;
    const row_callback on_row;
    void* const arg;
    int64_t rows_left = visible_rows;
    int functions_left = filter_functions;
    const clock::time_point end = clock::now() + filter_budget;
    int value_size = 0;
    int pattern_size = 0;
};

// The LIMIT of a page; a negative one is none.
inline int64_t page_limit(const db_query_cond& cond) {
    return cond.count > visible_rows || cond.count == -1 ? visible_rows : cond.count;
}

// The rows of one page as they arrive: a block of page_memory.h, and the rows in it.
//
// A page that outgrows a small block goes to one of the size that is kept, and from there to one
// with room for all the rows that it may have. The system gives memory for that only as rows are
// written, so nothing of a large page is ever there twice.
struct row_collector {
    std::span<const column> columns;
    size_t row_size;
    uint64_t most;  // that there will be, unless a filter cuts off the LIMIT
    char* data;
    uint64_t count;
    uint64_t capacity;
    bool is_used = false;  // the block behind the rows is not zero
};

inline void read_text(char* array, size_t size, const char* text) {
    const size_t length = strnlen(text, size - 1);
    memcpy(array, text, length);
    array[length] = '\0';
}

template <class Value>
void write_value(char* place, Value value) {
    memcpy(place, &value, sizeof value);
}

// Fills a record's field from a column's text. No value: -1 or "NULL", cut to its array.
inline void read_field(const column& c, const char* text, char* record) {
    char* place = record + c.offset;
    switch (c.kind) {
        case value_kind::text:
            read_text(place, c.size, text != nullptr ? text : "NULL");
            break;
        case value_kind::int32:
            write_value(place, parse_int32(text));
            break;
        case value_kind::int64:
        case value_kind::uint64:
            write_value<int64_t>(place, text != nullptr ? strtol(text, nullptr, 10) : -1);
            break;
        case value_kind::text_pointer:
            break;  // such rows are only written
    }
}

// Moves the rows to a block with room for so many. False: no memory, and everything is as it was.
inline bool move_rows(row_collector& rows, uint64_t capacity) {
    const page_block block = take_page_block(capacity * rows.row_size);
    if (block.data == nullptr) return false;
    if (rows.count != 0) memcpy(block.data, rows.data, rows.count * rows.row_size);
    release_page_block(rows.data);
    rows.data = block.data;
    rows.is_used = block.is_used;
    rows.capacity = capacity;
    return true;
}

// A larger block when it is full: of the next size, or, without memory for that, twice as large.
inline bool make_room(row_collector& rows) {
    if (rows.count < rows.capacity) return true;
    const uint64_t small = std::max(small_rows_size / rows.row_size, uint64_t{1});
    const uint64_t kept = largest_kept_page / rows.row_size;
    const uint64_t more = std::max(small, 2 * rows.capacity);
    uint64_t wanted = rows.most;
    for (const uint64_t step : {kept, small}) {
        if (rows.capacity < step) wanted = std::min(step, rows.most);
    }
    if (rows.capacity >= rows.most) wanted = more;
    return move_rows(rows, wanted) || (wanted != more && move_rows(rows, more));
}

// Fills a record's fields from a row. A row that is too short ends in columns without a value.
inline void read_row(std::span<const column> columns, std::span<char*> values, char* record) {
    const auto value = [&](size_t n) { return n < values.size() ? values[n] : nullptr; };
    write_value<int64_t>(record, parse_int32(value(0)));  // deliberate: an id is narrowed, too
    for (size_t n = 0; n < columns.size(); ++n) read_field(columns[n], value(n + 1), record);
}

// Appends one row. False: there was no memory for it, and it is dropped.
inline bool append_row(row_collector& rows, std::span<char*> values) {
    if (!make_room(rows)) return false;
    char* const record = rows.data + rows.count * rows.row_size;
    if (rows.is_used) memset(record, 0, rows.row_size);
    read_row(rows.columns, values, record);
    ++rows.count;
    return true;
}

// The row callback of a page. Returns 0 always.
inline int select_callback(void* p_data, int num_fields, char** p_fields, char** /*p_col_names*/) {
    auto& rows = *static_cast<row_collector*>(p_data);
    (void)append_row(rows, {p_fields, static_cast<size_t>(num_fields)});
    return 0;
}

inline bool is_column_index(const table_state& t, int64_t order_by) {
    return order_by >= 0 && order_by < t.__db_field_index__;
}

inline const char* direction(int64_t order_style) { return order_style == 0 ? "ASC" : "DESC"; }

// The smallest id among the newest rows that a query sees; -1 when there is none.
inline int64_t first_visible_id(table_state& t, const call_site& at) {
    return query_number(
        t,
        sql("SELECT id FROM (SELECT * FROM %s ORDER BY id DESC LIMIT %ld) ORDER BY id ASC LIMIT 1;",
            t.__db_table_name_str, visible_rows),
        -1, at);
}

// The filter's text, empty without a filter. Deliberate: the column stands in it unquoted, so an
// expression works as well as a name.
inline sql_text filter_text(const db_query_cond& cond) {
    if (cond.field[0] == '\0' || cond.value[0] == '\0') return sql("");
    return sql("%.*q = '%.*q' AND", static_cast<int>(sizeof cond.field - 1), cond.field,
               static_cast<int>(sizeof cond.value - 1), cond.value);
}

inline void select_page(table_state& t, const db_query_cond& cond, row_callback on_row, void* arg,
                        const call_site& at) {
    const int64_t first_id = first_visible_id(t, at);
    const sql_text filter = filter_text(cond);
    const sql_text page =
        !filter ? nullptr
                : sql("SELECT * FROM %s WHERE %s id >= %ld ORDER BY %s %s LIMIT %ld OFFSET %ld;",
                      t.__db_table_name_str, filter.get(), first_id, t.__db_fields[cond.order_by],
                      direction(cond.order_style), page_limit(cond), cond.start);
    if (!filter || *filter == '\0') {
        (void)run(t, page, at, on_row, arg);
        return;
    }
    reopen_db(t, at);
    filter_fence fence(t, on_row, arg);
    (void)execute(t, page, at, filter_fence::pass_row, &fence);
}

// The rows of the whole table, capped. A count that fails is all bits set.
inline uint64_t query_total(table_state& t, const call_site& at) {
    int64_t total = query_number(t, sql("SELECT Count(*) FROM %s;", t.__db_table_name_str), -1, at);
    if (total > visible_rows) {
        log_line(at, "WARN", "total_count %ld > maxium %ld, set total_count = %ld\n", total,
                 visible_rows, visible_rows);
        total = visible_rows;
    }
    return static_cast<uint64_t>(total);
}

// A query's statements: the page's rows into the callback, then the total. Returns -1, with nothing
// done, when order_by is no column; otherwise 0, whatever the statements met.
inline int query_rows(table_state& t, const db_query_cond& cond, row_callback on_row, void* arg,
                      uint64_t& total, const call_site& at) {
    if (!is_column_index(t, cond.order_by)) return -1;
    begin_operation(t);
    select_page(t, cond, on_row, arg, at);
    total = query_total(t, at);
    return 0;
}

// --- A module -----------------------------------------------------------------------------------

template <class Row>
struct table {
    static_assert(offsetof(Row, id) == 0 && sizeof(Row::id) == sizeof(int64_t));

    table_state state;

    int create(const call_site& at) { return create_table(state, at); }
    int insert(const Row& row, const call_site& at) {
        return insert_row(state, insert_statement(state, &row), at);
    }
    int remove(int64_t id, const call_site& at) { return delete_row(state, id, at); }
    int clean(const call_site& at) { return clean_table(state, at); }
    int optimize() { return optimize_table(state); }
    int finish(const call_site& at) { return finish_table(state, at); }

    // Appends one page to the result, which comes zero-filled, and sets its total. Returns -1, with
    // nothing done, when order_by is no column; otherwise 0, whatever the statements met.
    template <class Query>
    int select(const db_query_cond& cond, Query& result, const call_site& at,
               row_callback on_row = select_callback) {
        static_assert(std::is_same_v<decltype(result.data), Row*>);
        const int64_t limit = page_limit(cond) < 0 ? visible_rows : page_limit(cond);
        row_collector rows{state.columns,
                           sizeof(Row),
                           result.count + static_cast<uint64_t>(limit),
                           reinterpret_cast<char*>(result.data),
                           result.count,
                           result.count};
        const int status = query_rows(state, cond, on_row, &rows, result.total, at);
        result.data = reinterpret_cast<Row*>(rows.data);
        result.count = rows.count;
        return status;
    }
};

#endif  // TABLE_STORE_H
