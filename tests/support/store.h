// The three full tables as tests see them: their operations by one name each, their prescribed
// statement texts, sample rows, and the log that they write.
//
// All modules of a program keep their state for its life, so a test starts with unbuilt modules
// only because each case runs in a process of its own.
#ifndef TESTS_SUPPORT_STORE_H
#define TESTS_SUPPORT_STORE_H

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <initializer_list>
#include <span>
#include <sstream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "ravo_records.h"
#include "ravod_db_conn_client_handler.h"
#include "ravod_db_handler.h"
#include "ravod_db_list_handler.h"
#include "support/files.h"
#include "support/sql_trace.h"

using texts = std::vector<std::string>;

// --- The tables ---------------------------------------------------------------------------------

enum class field_kind { text, int32, int64, uint64 };

// One column after id and the record's field that belongs to it.
struct field {
    const char* name;
    field_kind kind;
    size_t offset;
    size_t size;
};

#define TEXT(row, name) \
    { #name, field_kind::text, offsetof(row, name), sizeof(row::name) }
#define NUMBER(row, name, kind) \
    { #name, field_kind::kind, offsetof(row, name), sizeof(row::name) }

struct conn_server_log {
    using row = db_conn_server_log;
    using query = db_conn_server_log_query;
    static constexpr char name[] = "conn_server_log";
    static constexpr char unit[] = "ravod_db_handler.cpp";
    static constexpr bool temporary = false;
    static constexpr field fields[] = {
        TEXT(row, username),
        NUMBER(row, vpn_type, int32),
        NUMBER(row, uptime, uint64),
        NUMBER(row, time, uint64),
        TEXT(row, device_info),
        TEXT(row, source_ip),
        TEXT(row, vpn_ip),
        NUMBER(row, tx_rate, int64),
        NUMBER(row, rx_rate, int64),
        NUMBER(row, tx_total, int64),
        NUMBER(row, rx_total, int64),
        TEXT(row, outgoing),
        NUMBER(row, action, int32),
    };
    static constexpr char create_text[] =
        "CREATE  TABLE IF NOT EXISTS conn_server_log (id INTEGER PRIMARY KEY AUTOINCREMENT UNIQUE, "
        "username TEXT, vpn_type INTEGER, uptime INTEGER, time INTEGER, device_info TEXT, "
        "source_ip TEXT, vpn_ip TEXT, tx_rate INTEGER, rx_rate INTEGER, tx_total INTEGER, "
        "rx_total INTEGER, outgoing TEXT, action INTEGER);";
    static constexpr char insert_head[] =
        "INSERT OR REPLACE INTO conn_server_log (username, vpn_type, uptime, time, device_info, "
        "source_ip, vpn_ip, tx_rate, rx_rate, tx_total, rx_total, outgoing, action) VALUES (";
    static constexpr auto create = create_conn_server_log_db;
    static constexpr auto insert = insert_conn_server_log;
    static constexpr auto remove = delete_conn_server_log;
    static constexpr auto clean = clean_conn_server_log;
    static constexpr auto select = select_conn_server_log;
    static constexpr auto optimize = optimize_server_log_db;
    static constexpr auto finish = finish_conn_server_log_db;
};

struct conn_client_log {
    using row = db_conn_client_log_data;
    using query = db_conn_client_log_query;
    static constexpr char name[] = "conn_client_log";
    static constexpr char unit[] = "ravod_db_conn_client_handler.cpp";
    static constexpr bool temporary = false;
    static constexpr field fields[] = {
        TEXT(row, username),
        NUMBER(row, vpn_type, int32),
        NUMBER(row, uptime, uint64),
        NUMBER(row, time, uint64),
        TEXT(row, vpn_ip),
        NUMBER(row, tx_rate, int64),
        NUMBER(row, rx_rate, int64),
        NUMBER(row, tx_total, int64),
        NUMBER(row, rx_total, int64),
        TEXT(row, country_code),
        TEXT(row, wan_ip),
        NUMBER(row, action, int32),
    };
    static constexpr char create_text[] =
        "CREATE  TABLE IF NOT EXISTS conn_client_log (id INTEGER PRIMARY KEY AUTOINCREMENT UNIQUE, "
        "username TEXT, vpn_type INTEGER, uptime INTEGER, time INTEGER, vpn_ip TEXT, "
        "tx_rate INTEGER, rx_rate INTEGER, tx_total INTEGER, rx_total INTEGER, country_code TEXT, "
        "wan_ip TEXT, action INTEGER);";
    static constexpr char insert_head[] =
        "INSERT OR REPLACE INTO conn_client_log (username, vpn_type, uptime, time, vpn_ip, "
        "tx_rate, rx_rate, tx_total, rx_total, country_code, wan_ip, action) VALUES (";
    static constexpr auto create = create_conn_client_log_db;
    static constexpr auto insert = insert_conn_client_log;
    static constexpr auto remove = delete_conn_client_log;
    static constexpr auto clean = clean_conn_client_log;
    static constexpr auto select = select_conn_client_log;
    static constexpr auto optimize = optimize_client_log_db;
    static constexpr auto finish = finish_conn_client_log_db;
};

struct server_list {
    using row = db_server_list_data;
    using query = db_server_list_query;
    static constexpr char name[] = "server_list";
    static constexpr char unit[] = "ravod_db_list_handler.cpp";
    static constexpr bool temporary = true;
    static constexpr field fields[] = {
        TEXT(row, uuid),
        TEXT(row, username),
        TEXT(row, sid),
        TEXT(row, device_name),
        NUMBER(row, expire_time, uint64),
        NUMBER(row, time, uint64),
    };
    static constexpr char create_text[] =
        "CREATE TEMPORARY TABLE IF NOT EXISTS server_list (id INTEGER PRIMARY KEY AUTOINCREMENT "
        "UNIQUE, uuid TEXT, username TEXT, sid TEXT, device_name TEXT, expire_time INTEGER, "
        "time INTEGER);";
    static constexpr char insert_head[] =
        "INSERT OR REPLACE INTO server_list (uuid, username, sid, device_name, expire_time, time) "
        "VALUES (";
    static constexpr auto create = create_server_list_db;
    static constexpr auto insert = insert_server_list;
    static constexpr auto remove = delete_server_list;
    static constexpr auto clean = clean_server_list;
    static constexpr auto select = select_server_list;
    static constexpr auto optimize = optimize_server_list_db;
    static constexpr auto finish = finish_server_list_db;
};

#undef TEXT
#undef NUMBER

using every_table = testing::Types<conn_server_log, conn_client_log, server_list>;
using persistent_tables = testing::Types<conn_server_log, conn_client_log>;

// Numbers the instances of a typed suite, which is what CTest needs to name them after their types.
struct number_only {
    template <class Table>
    static std::string GetName(int index) {
        return std::to_string(index);
    }
};

// --- Rows ---------------------------------------------------------------------------------------

// The field's text up to its NUL or its array's end, or its number in decimal.
inline std::string value_of(const field& f, const void* row) {
    const char* place = static_cast<const char*>(row) + f.offset;
    if (f.kind == field_kind::text) return {place, strnlen(place, f.size)};
    if (f.kind == field_kind::int32) {
        int32_t number = 0;
        memcpy(&number, place, sizeof number);
        return std::to_string(number);
    }
    int64_t number = 0;
    memcpy(&number, place, sizeof number);
    return f.kind == field_kind::int64 ? std::to_string(number)
                                       : std::to_string(static_cast<uint64_t>(number));
}

template <class Table>
texts values_of(const typename Table::row& row) {
    texts values;
    for (const field& f : Table::fields) values.push_back(value_of(f, &row));
    return values;
}

// Puts a text, cut to its array, into a row's text field.
inline void set_text(const field& f, void* row, const std::string& text) {
    char* place = static_cast<char*>(row) + f.offset;
    memset(place, 0, f.size);
    text.copy(place, f.size - 1);
}

// A row whose fields all differ from each other and from those of a row of another number.
template <class Table>
typename Table::row sample(int number) {
    typename Table::row row{};
    row.id = 4711;
    int64_t value = int64_t{1000} * number;
    for (const field& f : Table::fields) {
        ++value;
        if (f.kind == field_kind::text) {
            set_text(f, &row,
                     f.size == 3 ? "TW" : std::string(f.name) + " " + std::to_string(number));
        } else {
            memcpy(reinterpret_cast<char*>(&row) + f.offset, &value, f.size);
        }
    }
    return row;
}

// The whole INSERT of a row without quotes in its texts.
template <class Table>
std::string insert_text(const typename Table::row& row) {
    std::string text = Table::insert_head;
    for (const field& f : Table::fields) {
        if (&f != Table::fields) text += ", ";
        const std::string value = value_of(f, &row);
        text += f.kind == field_kind::text ? "'" + value + "'" : value;
    }
    return text + ");";
}

template <class Table>
void insert_sample(int number) {
    typename Table::row row = sample<Table>(number);
    EXPECT_EQ(Table::insert(&row), 0);
}

template <class Table>
int remove_row(int64_t id) {
    db_delete_cond cond = {id};
    return Table::remove(&cond);
}

// --- Connections and statements -----------------------------------------------------------------

// The handle that was given out last.
inline sqlite3* db() { return sql_trace::opened.back(); }

inline std::string name_of(const void* handle) {
    char text[32];
    snprintf(text, sizeof text, "%p", handle);
    return text;
}

// Creates the table and forgets the statements that it took.
template <class Table>
void start() {
    ASSERT_EQ(Table::create(), 0);
    sql_trace::statements.clear();
}

// Adds rows in bulk, past the store; each row's time is its number.
template <class Table>
void seed(int64_t rows) {
    ASSERT_EQ(sql_trace::run(db(),
                             "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n "
                             "WHERE i < " +
                                 std::to_string(rows) + ") INSERT INTO " + Table::name +
                                 " (time) SELECT i FROM n"),
              SQLITE_OK);
}

// The table's rows as the last connection sees them.
template <class Table>
std::string row_count() {
    return sql_trace::value(db(), std::string("SELECT count(*) FROM ") + Table::name);
}

// Makes every statement that begins so fail from now on, before SQLite sees it.
inline void fail_statement(const std::string& beginning, int code = SQLITE_ERROR) {
    sql_trace::before_exec = [=](const std::string& text) {
        return text.starts_with(beginning) ? code : SQLITE_OK;
    };
}

// Makes the module drop its connection, by a query whose last statement fails.
template <class Table>
void drop_connection() {
    fail_statement("SELECT Count(*)");
    db_query_cond cond = {};
    typename Table::query result = {};
    typename Table::query* pointer = &result;
    EXPECT_EQ(Table::select(&cond, &pointer), 0);
    sql_trace::before_exec = nullptr;
    sql_trace::statements.clear();
    std::filesystem::remove(log_path);
}

// --- A query ------------------------------------------------------------------------------------

struct page_request {
    int64_t start = 0;
    int64_t count = -1;
    int64_t order_by = 0;
    int64_t order_style = 0;
    std::string field{};
    std::string value{};
};

inline db_query_cond condition(const page_request& request) {
    db_query_cond cond = {};
    cond.start = request.start;
    cond.count = request.count;
    cond.order_by = request.order_by;
    cond.order_style = request.order_style;
    request.field.copy(cond.field, sizeof cond.field - 1);
    request.value.copy(cond.value, sizeof cond.value - 1);
    return cond;
}

// A result record as a caller owns it, and the query that fills it.
template <class Table>
class page {
  public:
    explicit page(const page_request& request = {}) {
        db_query_cond cond = condition(request);
        select(cond);
    }
    explicit page(db_query_cond& cond) { select(cond); }
    ~page() { free(result.data); }
    page(const page&) = delete;
    page& operator=(const page&) = delete;

    uint64_t count() const { return result.count; }
    uint64_t total() const { return result.total; }
    const typename Table::row* data() const { return result.data; }
    std::span<const typename Table::row> rows() const { return {result.data, result.count}; }
    std::vector<int64_t> ids() const {
        std::vector<int64_t> list;
        for (const auto& row : rows()) list.push_back(row.id);
        return list;
    }

    int status = 0;

  private:
    void select(db_query_cond& cond) {
        typename Table::query* pointer = &result;
        status = Table::select(&cond, &pointer);
        EXPECT_EQ(pointer, &result);
    }

    typename Table::query result{};
};

// --- The log ------------------------------------------------------------------------------------

struct log_entry {
    int pid;
    std::string level;
    std::string file;
    int line;
    std::string function;
    std::string message;  // with its line end
};

// "PID [LEVEL] UNIT.cpp [LINE] FUNCTION:", as the line of this entry begins.
inline std::string prefix_of(const log_entry& e) {
    return std::to_string(e.pid) + " [" + e.level + "] " + e.file + " [" + std::to_string(e.line) +
           "] " + e.function + ":";
}

// Takes a log line apart. False: it has no prefix of its own.
inline bool parse_log_line(const std::string& line, log_entry& e) {
    char bracket = '\0';
    std::istringstream in(line);
    in >> e.pid >> bracket;
    std::getline(in, e.level, ']');
    in >> e.file >> bracket >> e.line >> bracket >> std::ws;
    std::getline(in, e.function, ':');
    const std::string prefix = prefix_of(e);
    if (!in || !line.starts_with(prefix)) return false;
    e.message = line.substr(prefix.size()) + "\n";
    return true;
}

// The log file's lines; one without a prefix of its own belongs to the message before it.
inline std::vector<log_entry> read_log() {
    std::vector<log_entry> entries;
    for (const std::string& line : split_lines(read_file(log_path))) {
        log_entry entry{};
        if (parse_log_line(line, entry)) {
            entries.push_back(entry);
        } else if (!entries.empty()) {
            entries.back().message += line + "\n";
        } else {
            ADD_FAILURE() << "no log line: " << line;
        }
    }
    return entries;
}

// The level and the message of each line, as in "ERROR RET = 1\n".
inline texts log_messages() {
    texts list;
    for (const log_entry& e : read_log()) list.push_back(e.level + " " + e.message);
    return list;
}

inline void forget_log() { std::filesystem::remove(log_path); }

inline std::string closing(const void* handle) { return "WARN close db " + name_of(handle) + "\n"; }

// What a failed statement leaves in the log; without a handle there is none to close.
inline texts failure(const std::string& statement, const std::string& error, int code,
                     const void* handle) {
    texts list = {"ERROR sql = " + statement + ", err = " + error + "\n"};
    if (handle != nullptr) list.push_back(closing(handle));
    list.push_back("ERROR RET = " + std::to_string(code) + "\n");
    return list;
}

inline texts joined(std::initializer_list<texts> lists) {
    texts all;
    for (const texts& list : lists) all.insert(all.end(), list.begin(), list.end());
    return all;
}

#endif  // TESTS_SUPPORT_STORE_H
