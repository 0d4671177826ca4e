// Sees every statement that the linked store hands to SQLite, by standing in front of sqlite3_exec
// and sqlite3_open, and can make a statement or an opening fail. Link sql_trace.cpp into the test.
#ifndef TESTS_SUPPORT_SQL_TRACE_H
#define TESTS_SUPPORT_SQL_TRACE_H

#include <sqlite3.h>

#include <functional>
#include <string>
#include <vector>

namespace sql_trace {

// The texts given to sqlite3_exec so far, in order.
extern std::vector<std::string> statements;
// The handles that sqlite3_open gave out, in order, and how often it was called.
extern std::vector<sqlite3*> opened;
// When set, called before each statement is run; a result other than SQLITE_OK is returned in place
// of running it, with no error text.
extern std::function<int(const std::string&)> before_exec;
// When set, called before each opening; a result other than SQLITE_OK is returned in place of it.
extern std::function<int(const std::string&)> before_open;

void clear();

// Runs a statement directly, past the trace. Returns SQLite's code.
int run(sqlite3* db, const std::string& text);
// The first column of the first row, run past the trace; "(no row)" without one.
std::string value(sqlite3* db, const std::string& text);
// The same on a connection of its own to the database file.
std::string value_in_file(const std::string& text);

}  // namespace sql_trace

#endif  // TESTS_SUPPORT_SQL_TRACE_H
