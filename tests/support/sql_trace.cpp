// Sees every statement that the linked store hands to SQLite.
#include "support/sql_trace.h"

#include <dlfcn.h>

#include "support/files.h"

namespace sql_trace {
std::vector<std::string> statements;
std::vector<sqlite3*> opened;
std::function<int(const std::string&)> before_exec;
std::function<int(const std::string&)> before_open;
}  // namespace sql_trace

namespace {

template <class Function>
Function next(Function /*like*/, const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

// SQLite calls its own sqlite3_exec, for example to read the schema; that is nobody's statement.
int depth = 0;

int real_exec(sqlite3* db, const char* text, int (*on_row)(void*, int, char**, char**), void* arg,
              char** error) {
    static const auto function = next(&sqlite3_exec, "sqlite3_exec");
    ++depth;
    const int rc = function(db, text, on_row, arg, error);
    --depth;
    return rc;
}

int keep_first(void* out, int columns, char** values, char** /*names*/) {
    auto& value = *static_cast<std::string*>(out);
    if (value == "(no row)" && columns > 0) value = values[0] != nullptr ? values[0] : "(null)";
    return 0;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int sqlite3_exec(sqlite3* db, const char* text,
                                                                   int (*on_row)(void*, int, char**,
                                                                                 char**),
                                                                   void* arg, char** error) {
    if (depth > 0) return real_exec(db, text, on_row, arg, error);
    sql_trace::statements.emplace_back(text != nullptr ? text : "(null)");
    if (sql_trace::before_exec) {
        const int rc = sql_trace::before_exec(sql_trace::statements.back());
        if (rc != SQLITE_OK) return rc;
    }
    return real_exec(db, text, on_row, arg, error);
}

extern "C" __attribute__((visibility("default"))) int sqlite3_open(const char* path, sqlite3** db) {
    static const auto real_open = next(&sqlite3_open, "sqlite3_open");
    if (sql_trace::before_open) {
        const int rc = sql_trace::before_open(path);
        if (rc != SQLITE_OK) return rc;
    }
    const int rc = real_open(path, db);
    sql_trace::opened.push_back(*db);
    return rc;
}

namespace sql_trace {

void clear() {
    statements.clear();
    opened.clear();
    before_exec = nullptr;
    before_open = nullptr;
}

int run(sqlite3* db, const std::string& text) {
    return real_exec(db, text.c_str(), nullptr, nullptr, nullptr);
}

std::string value(sqlite3* db, const std::string& text) {
    std::string result = "(no row)";
    char* error = nullptr;
    if (real_exec(db, text.c_str(), keep_first, &result, &error) != SQLITE_OK) {
        result = std::string("error: ") + (error != nullptr ? error : "?");
        sqlite3_free(error);
    }
    return result;
}

std::string value_in_file(const std::string& text) {
    sqlite3* db = nullptr;
    std::string result = "(cannot open)";
    if (sqlite3_open_v2(db_path, &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
        result = value(db, text);
    }
    sqlite3_close(db);
    return result;
}

}  // namespace sql_trace
