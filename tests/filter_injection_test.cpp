// Filters that are SQL, against each table: every class of them is refused, and no legitimate
// request notices the authorizer that refuses them.
//
// The linker puts this program's functions in the place of three that the store calls: the setting
// of the authorizer, which can be left out, so that the same requests run with and without it; and
// the identifier and the clock that replies depend on.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "fuzz/store_world.h"
#include "support/files.h"
#include "support/rows.h"

namespace {
bool is_authorizer_off = false;
}

extern "C" {
int __real_sqlite3_set_authorizer(sqlite3* db,
                                  int (*authorize)(void*, int, const char*, const char*,
                                                   const char*, const char*),
                                  void* arg);
int __wrap_sqlite3_set_authorizer(sqlite3* db,
                                  int (*authorize)(void*, int, const char*, const char*,
                                                   const char*, const char*),
                                  void* arg);
int __wrap_sqlite3_set_authorizer(sqlite3* db,
                                  int (*authorize)(void*, int, const char*, const char*,
                                                   const char*, const char*),
                                  void* arg) {
    return is_authorizer_off ? SQLITE_OK : __real_sqlite3_set_authorizer(db, authorize, arg);
}

int __wrap__Z13ravo_uuid_genPc(char* uuid);
int __wrap__Z13ravo_uuid_genPc(char* uuid) {
    memcpy(uuid, "00000000000000000000000000000000%R?", 36);
    return 0;
}

__attribute__((visibility("default"))) time_t time(time_t* place) noexcept {
    constexpr time_t now = 1795222858;
    if (place != nullptr) *place = now;
    return now;
}
}

namespace {

using store_world::ask;
using store_world::table_info;
using store_world::tables;
using strings = std::vector<std::string>;

constexpr char other_file[] = "/tmp/other.db";

std::string secret_of(const std::string& table) { return "secret of " + table; }

template <class Row>
std::string device_bytes(Row device, const std::string& text) {
    set_text(device.mac, text);
    set_text(device.ip, text);
    return bytes_of(device);
}

// The inserts that put a text into a row of each table.
std::vector<std::pair<std::string, std::string>> inserts(const std::string& text, bool with_names) {
    const auto named = [&](const char* table) { return with_names ? text + table : text; };
    return {
        {"db_conn_insert", bytes_of(row_with_text<db_conn_server_log>(named("conn_server_log")))},
        {"db_conn_client_log_insert",
         bytes_of(row_with_text<db_conn_client_log_data>(named("conn_client_log")))},
        {"db_server_list_insert",
         bytes_of(row_with_text<db_server_list_data>(named("server_list")))},
        {"db_device_info_insert",
         device_bytes(zeroed<db_device_info_data>(), named("device_info"))},
        {"db_privilege_user_block_insert", named("privilege_user_block")},
    };
}

// All tables anew, a row in each that holds its secret.
void begin_with_secrets() {
    store_world::begin();
    std::filesystem::remove(other_file);
    for (const auto& [method, record] : inserts(secret_of(""), true)) {
        ASSERT_TRUE(ask(method, record).replied) << method;
    }
}

// The first result code that is logged; 0 without a failure.
int logged_code() {
    static const std::regex line("RET = (\\d+)");
    const std::string log = read_file(log_path);
    std::smatch found;
    return std::regex_search(log, found, line) ? std::stoi(found[1]) : 0;
}

// --- Classes of hostile filters ------------------------------------------------------------------

struct hostile {
    const char* name;
    // TABLE is the table that is asked, OTHER another one, NULLS as many values as TABLE has
    // columns less one.
    std::string field;
    int code = SQLITE_AUTH;
    int code_of_temporary = 0;  // where the table is one; 0: the same
};

const std::vector<hostile>& classes() {
    static const std::vector<hostile> all = {
        {"delete", "1; DELETE FROM TABLE; --"},
        {"delete_other", "1; DELETE FROM OTHER; --"},
        {"insert", "1; INSERT INTO TABLE DEFAULT VALUES; --"},
        {"insert_other", "1; INSERT INTO OTHER DEFAULT VALUES; --"},
        {"replace", "1; REPLACE INTO OTHER (id) VALUES (1); --"},
        {"update", "1; UPDATE TABLE SET id = 77; --"},
        {"update_other", "1; UPDATE OTHER SET id = 77; --"},
        {"drop", "1; DROP TABLE TABLE; --"},
        {"drop_other", "1; DROP TABLE OTHER; --"},
        {"alter", "1; ALTER TABLE OTHER RENAME TO other; --"},
        {"alter_column", "1; ALTER TABLE OTHER ADD COLUMN more; --"},
        {"create_table", "1; CREATE TABLE more (a); --", SQLITE_AUTH, SQLITE_SCHEMA},
        {"create_temporary_table", "1; CREATE TEMP TABLE more (a); --", SQLITE_AUTH, SQLITE_SCHEMA},
        {"create_index", "1; CREATE INDEX more ON OTHER (id); --"},
        {"create_view", "1; CREATE VIEW more AS SELECT 1; --", SQLITE_AUTH, SQLITE_SCHEMA},
        {"create_trigger",
         "1; CREATE TEMP TRIGGER more AFTER INSERT ON OTHER BEGIN SELECT 1; END; --"},
        {"create_virtual_table", "1; CREATE VIRTUAL TABLE more USING fts5(a); --", SQLITE_AUTH,
         SQLITE_SCHEMA},
        {"schema_version", "1; PRAGMA user_version = 7; --"},
        {"writable_schema", "1; PRAGMA writable_schema = ON; --"},
        {"pragma_that_reads", "1; PRAGMA journal_mode; --"},
        {"attach", "1; ATTACH \"/tmp/other.db\" AS o; CREATE TABLE o.a (b); --"},
        {"detach", "1; DETACH main; --"},
        {"vacuum_into", "1; VACUUM INTO \"/tmp/other.db\"; --"},
        {"begin", "1; BEGIN EXCLUSIVE; --"},
        {"savepoint", "1; SAVEPOINT a; --"},
        {"reindex", "1; REINDEX; --"},
        {"analyze", "1; ANALYZE; --"},
        {"schema", "(SELECT sql FROM sqlite_schema LIMIT 1)"},
        {"schema_count", "(SELECT count(*) FROM sqlite_master)"},
        {"sequence", "(SELECT seq FROM sqlite_sequence LIMIT 1)"},
        {"subselect", "(SELECT id FROM OTHER LIMIT 1)"},
        {"exists", "EXISTS (SELECT 1 FROM OTHER)"},
        {"join", "(SELECT count(*) FROM TABLE, OTHER)"},
        {"common_table", "id IN (WITH c AS (SELECT id FROM OTHER) SELECT id FROM c)"},
        {"union", "id = 0 UNION ALL SELECT NULLS, username FROM OTHER --"},
        {"union_schema", "id = 0 UNION ALL SELECT NULLS, sql FROM sqlite_master --"},
        {"except", "id = 0 EXCEPT SELECT NULLS, id FROM OTHER --"},
        {"recursion",
         "id IN (WITH RECURSIVE n(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM n LIMIT 9) SELECT x "
         "FROM n)"},
        {"pragma_function", "(SELECT 1 FROM pragma_database_list)", SQLITE_ERROR},
        {"table_function", "(SELECT 1 FROM json_each(1))", SQLITE_ERROR},
        {"extension", "load_extension(\"/tmp/other.so\")", SQLITE_ERROR},
        {"long_format", "format(\"%.100000c\", \"x\")", SQLITE_ERROR},
        {"long_format_by_its_old_name", "PrintF(\"%.*c\", 100000, \"x\")", SQLITE_ERROR},
        {"many_functions",
         "abs(1)+abs(1)+abs(1)+abs(1)+abs(1)+abs(1)+abs(1)+abs(1)+abs(1)+abs(1)+"
         "abs(1)+abs(1)+abs(1)+abs(1)+abs(1)+abs(1)+(1 LIKE 1)",
         SQLITE_ERROR},
        {"huge_value", "length(hex(zeroblob(100000000)))", SQLITE_TOOBIG},
    };
    return all;
}

std::string replaced(std::string text, const std::string& word, const std::string& by) {
    for (size_t at = 0; (at = text.find(word, at)) != std::string::npos; at += by.size()) {
        text.replace(at, word.size(), by);
    }
    return text;
}

// Values for all columns but the last.
std::string nulls_of(const table_info& table) {
    size_t columns = 0;
    for (const auto& [name, count] : {std::pair("conn_server_log", 14),
                                      {"conn_client_log", 13},
                                      {"server_list", 7},
                                      {"device_info", 9},
                                      {"privilege_user_block", 4}}) {
        if (table.name == std::string(name)) columns = static_cast<size_t>(count);
    }
    std::string nulls = "1";
    for (size_t n = 2; n < columns; ++n) nulls += ", NULL";
    return nulls;
}

std::string field_of(const hostile& filter, const table_info& table) {
    const bool is_first = &table == &tables[0];
    const std::string other = is_first ? "conn_client_log" : "conn_server_log";
    // Between the words there are no others in capitals, but TABLE also is a word of SQL.
    std::string field = replaced(filter.field, "NULLS", nulls_of(table));
    field = replaced(field, "FROM TABLE", std::string("FROM ") + table.name);
    field = replaced(field, "INTO TABLE", std::string("INTO ") + table.name);
    field = replaced(field, "UPDATE TABLE", std::string("UPDATE ") + table.name);
    field = replaced(field, "TABLE TABLE", std::string("TABLE ") + table.name);
    return replaced(field, "OTHER", other);
}

// What a query with this filter does: its code, and whether anything came of it.
struct outcome {
    int code;
    bool is_harmful;
};

outcome try_filter(const table_info& table, const std::string& field) {
    begin_with_secrets();
    const std::string before = read_file(db_path);
    const store_world::answer got = ask(table.query, bytes_of(filtered(field, "x")));
    EXPECT_TRUE(got.replied);
    const auto is_told = [&](const table_info& other) {
        return &other != &table && got.bytes.find(secret_of(other.name)) != std::string::npos;
    };
    const bool is_harmful = read_file(db_path) != before || std::filesystem::exists(other_file) ||
                            std::any_of(std::begin(tables), std::end(tables), is_told);
    return {logged_code(), is_harmful};
}

class filter_injection : public testing::TestWithParam<size_t> {
  protected:
    ~filter_injection() override { is_authorizer_off = false; }
    static const table_info& table() { return tables[GetParam()]; }
};

std::string table_name(const testing::TestParamInfo<size_t>& info) {
    return tables[info.param].name;
}

TEST_P(filter_injection, of_every_class_is_refused) {
    for (const hostile& filter : classes()) {
        SCOPED_TRACE(filter.name);
        const outcome got = try_filter(table(), field_of(filter, table()));
        const bool is_other = table().temporary && filter.code_of_temporary != 0;
        EXPECT_EQ(got.code, is_other ? filter.code_of_temporary : filter.code);
        EXPECT_FALSE(got.is_harmful);
    }
}

TEST_P(filter_injection, leaves_the_table_to_the_next_request) {
    begin_with_secrets();
    (void)ask(table().query, bytes_of(filtered("1; DELETE FROM conn_server_log; --", "x")));
    for (const auto& [method, record] : inserts("later", false)) {
        EXPECT_TRUE(ask(method, record).replied) << method;
    }
    EXPECT_EQ(store_world::run("SELECT count(*) FROM conn_server_log"), strings{"2"});
    EXPECT_EQ(store_world::run("SELECT count(*) FROM privilege_user_block"), strings{"2"});
}

INSTANTIATE_TEST_SUITE_P(of, filter_injection, testing::Range(size_t{0}, std::size(tables)),
                         table_name);

// So that the test above can fail: it sees the harm that the authorizer prevents.
TEST(filter_injection_without_authorizer, does_harm) {
    is_authorizer_off = true;
    size_t harmful = 0;
    for (const hostile& filter : classes()) {
        const outcome got = try_filter(tables[0], field_of(filter, tables[0]));
        harmful += got.is_harmful ? 1 : 0;
    }
    EXPECT_GE(harmful, 20U);
}

// --- Legitimate requests -------------------------------------------------------------------------

// A reply without the one thing in it that is no content: the address at which its rows were.
std::string content_of(const store_world::answer& got) {
    if (!got.replied) return "(no reply)";
    std::string bytes = got.bytes;
    if (bytes.size() >= sizeof(db_server_list_query)) bytes.replace(16, 8, 8, '\0');
    return bytes;
}

strings conditions() {
    strings all = {bytes_of(page(0, -1)), bytes_of(page(1, 2)), bytes_of(page(0, 0))};
    for (const char* field :
         {"id", "username", "mac", "upper(username)", "rowid", "CASE id WHEN 2 THEN username END",
          "username COLLATE NOCASE", "time", "no_such_column", "length(username)"}) {
        for (const char* value : {"2", "ALICE 2", "o'hara"}) {
            db_query_cond cond = filtered(field, value);
            cond.order_by = static_cast<int64_t>(all.size() % 2);
            all.push_back(bytes_of(cond));
        }
    }
    return all;
}

// The replies of all methods that have to do with tables, over tables with a few rows.
strings replies() {
    strings all;
    const auto keep = [&](const std::string& method, const std::string& request) {
        all.push_back(method + ": " + content_of(ask(method, request)));
    };
    for (const std::string& cond : conditions()) {
        store_world::begin();
        for (const char* text : {"alice 1", "alice 2", "o'hara"}) {
            for (const auto& [method, record] : inserts(text, false)) keep(method, record);
        }
        for (const table_info& table : tables) keep(table.query, cond);
    }
    for (const char* table : {"conn_server_log", "conn_client_log", "server_list", "device_info"}) {
        keep("db_" + std::string(table) + "_del", bytes_of(db_delete_cond{1}));
    }
    for (const char* method : {"check", "del", "check"}) {
        keep("db_privilege_user_block_" + std::string(method), "alice 1");
    }
    for (const table_info& table : tables) keep(table.query, bytes_of(page(0, -1)));
    for (const table_info& table : tables) {
        keep("db_" + std::string(table.name) + "_clean", "");
        keep(table.query, bytes_of(page(0, -1)));
    }
    return all;
}

TEST(legitimate_requests, are_answered_alike_with_and_without_the_authorizer) {
    store_world::settings =
        R"({"error": 0, "data": {"global": {"enable": true, "limit": 1, "time": 5}}})";
    const strings with = replies();
    is_authorizer_off = true;
    const strings without = replies();
    is_authorizer_off = false;
    ASSERT_EQ(with.size(), without.size());
    EXPECT_GT(with.size(), 600U);
    for (size_t n = 0; n < with.size(); ++n) {
        EXPECT_TRUE(with[n] == without[n]) << with[n].substr(0, with[n].find(':'));
    }
}

}  // namespace
