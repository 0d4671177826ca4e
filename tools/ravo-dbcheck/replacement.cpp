// The new database that rows are saved into.
#include "replacement.h"

#include <fcntl.h>

#include <cstring>

#include "ravod_db_conn_client_handler.h"
#include "ravod_db_handler.h"
#include "ravod_db_privilege_user_block_handler.h"
#include "table_store.h"

namespace {

// --- Another path for the modules ---------------------------------------------------------------

// The modules open one path, at which the damaged file is. While they build the new file, SQLite's
// default is a copy of its own VFS that leads this path to another one.
std::string redirected_path;

int redirected_full_path(sqlite3_vfs* vfs, const char* name, int size, char* out) {
    const char* target = strcmp(name, database_path) == 0 ? redirected_path.c_str() : name;
    return sqlite3_vfs_find("unix")->xFullPathname(vfs, target, size, out);
}

class redirection {
  public:
    explicit redirection(const std::string& path)
        : before(sqlite3_vfs_find(nullptr)), vfs(*sqlite3_vfs_find("unix")) {
        redirected_path = path;
        vfs.zName = "redirection";
        vfs.xFullPathname = redirected_full_path;
        sqlite3_vfs_register(&vfs, 1);
    }
    ~redirection() {
        sqlite3_vfs_unregister(&vfs);
        sqlite3_vfs_register(before, 1);
    }
    redirection(const redirection&) = delete;
    redirection& operator=(const redirection&) = delete;

  private:
    sqlite3_vfs* before;
    sqlite3_vfs vfs;
};

// The tables that outlive the daemon, as its start makes them.
bool create_persistent_tables() {
    const bool done = create_conn_server_log_db() == 0 && create_conn_client_log_db() == 0 &&
                      create_privilege_user_block_db() == 0;
    (void)finish_conn_server_log_db();
    (void)finish_conn_client_log_db();
    (void)finish_privilege_user_block_db();
    return done;
}

// --- Statements ---------------------------------------------------------------------------------

int prepare(sqlite3* db, const std::string& text, statement_handle& prepared) {
    sqlite3_stmt* made = nullptr;
    const int rc = sqlite3_prepare_v2(db, text.c_str(), -1, &made, nullptr);
    prepared.reset(made);
    return rc;
}

std::string text_of(sqlite3_stmt* row, int column) {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(row, column));
    return text != nullptr ? text : "";
}

column_kind kind_of(const std::string& type, bool is_key) {
    if (is_key) return column_kind::row_id;
    return type == "TEXT" ? column_kind::text : column_kind::integer;
}

int bind(sqlite3_stmt* insert, int place, const value& v) {
    switch (v.kind) {
        case value::type::integer:
            return sqlite3_bind_int64(insert, place, v.integer);
        case value::type::real:
            return sqlite3_bind_double(insert, place, v.real);
        case value::type::text:
            return sqlite3_bind_text(insert, place, v.text.data(), static_cast<int>(v.text.size()),
                                     SQLITE_STATIC);
        case value::type::blob:
        case value::type::null:
            break;
    }
    return sqlite3_bind_null(insert, place);
}

int finished(int rc) { return rc == SQLITE_DONE ? SQLITE_OK : rc; }

}  // namespace

int replacement::execute(const char* text) {
    return sqlite3_exec(db.get(), text, nullptr, nullptr, nullptr);
}

int replacement::create(const std::string& path) {
    {
        const redirection to(path);
        if (!create_persistent_tables()) return module_failure;
    }
    sqlite3* opened = nullptr;
    int rc = sqlite3_open_v2(path.c_str(), &opened, SQLITE_OPEN_READWRITE, "unix");
    db.reset(opened);
    // Until it is finished the file is worth nothing: no journal, and one sync at the end.
    if (rc == SQLITE_OK) rc = execute("PRAGMA journal_mode = OFF; PRAGMA synchronous = OFF;");
    if (rc == SQLITE_OK) rc = read_tables();
    if (rc == SQLITE_OK) rc = execute("BEGIN EXCLUSIVE;");
    return rc;
}

int replacement::read_tables() {
    statement_handle names;
    int rc = prepare(db.get(),
                     "SELECT name FROM sqlite_master WHERE type = 'table' AND name NOT LIKE "
                     "'sqlite%' ORDER BY rowid;",
                     names);
    while (rc == SQLITE_OK && (rc = sqlite3_step(names.get())) == SQLITE_ROW) {
        tables.push_back({text_of(names.get(), 0), {}});
        rc = read_columns(tables.back());
    }
    return finished(rc);
}

int replacement::read_columns(kept_table& table) {
    statement_handle info;
    int rc = prepare(db.get(), "PRAGMA table_info(" + table.name + ");", info);
    while (rc == SQLITE_OK && (rc = sqlite3_step(info.get())) == SQLITE_ROW) {
        table.columns.push_back(
            kind_of(text_of(info.get(), 2), sqlite3_column_int(info.get(), 5) != 0));
        rc = SQLITE_OK;
    }
    std::string marks = "?";
    for (size_t n = 1; n < table.columns.size(); ++n) marks += ", ?";
    if (rc != SQLITE_DONE) return rc;
    return prepare(db.get(), "INSERT OR IGNORE INTO " + table.name + " VALUES (" + marks + ");",
                   table.insert);
}

int replacement::save(kept_table& table, std::optional<int64_t> id, std::span<const value> values) {
    sqlite3_stmt* insert = table.insert.get();
    int rc = SQLITE_OK;
    for (size_t n = 0; n < values.size() && rc == SQLITE_OK; ++n) {
        const int place = static_cast<int>(n) + 1;
        const bool has_id = id && table.columns[n] == column_kind::row_id;
        rc = has_id ? sqlite3_bind_int64(insert, place, *id) : bind(insert, place, values[n]);
    }
    if (rc == SQLITE_OK) rc = finished(sqlite3_step(insert));
    if (rc == SQLITE_OK && sqlite3_changes(db.get()) > 0) ++table.saved;
    (void)sqlite3_reset(insert);
    return rc;
}

int replacement::raise_last_ids(const std::map<std::string, int64_t>& last_ids) {
    int rc = SQLITE_OK;
    for (const kept_table& table : tables) {
        const auto last = last_ids.find(table.name);
        if (rc != SQLITE_OK || last == last_ids.end()) continue;
        // SQLite has counted the saved rows already; a table without any has no count.
        const char* name = table.name.c_str();
        const sql_text text =
            sql("UPDATE sqlite_sequence SET seq = max(seq, %ld) WHERE name = '%q'; "
                "INSERT INTO sqlite_sequence SELECT '%q', %ld WHERE NOT EXISTS "
                "(SELECT 1 FROM sqlite_sequence WHERE name = '%q');",
                last->second, name, name, last->second, name);
        rc = text ? execute(text.get()) : SQLITE_NOMEM;
    }
    return rc;
}

int replacement::finish() {
    const int rc = execute("COMMIT;");
    for (kept_table& table : tables) table.insert.reset();
    db.reset();
    return rc;
}

std::string words_of(int code) {
    return code == module_failure ? std::string("the log has the reason, ") + unit_log.__log_file__
                                  : sqlite3_errstr(code);
}
