// What the tests of the commit layer share: connections set up as the store's, the kinds of commits
// that the daemon makes, and the question whether a database is sound and what it holds.
#ifndef TESTS_SUPPORT_COMMIT_WORLD_H
#define TESTS_SUPPORT_COMMIT_WORLD_H

#include <sqlite3.h>

#include <ostream>
#include <string>
#include <vector>

#include "commit_vfs.h"

namespace commit_world {

// The folder of the database: of its own in memory, or where COMMIT_FOLDER says.
std::string folder();
std::string database();
std::string side_file();
std::string journal();

inline constexpr const char* pragmas[] = {
    "PRAGMA page_size = 2048;",           "PRAGMA synchronous = ON;",
    "PRAGMA auto_vacuum = FULL;",         "PRAGMA journal_mode = OFF;",
    "PRAGMA default_cache_size = 10000;", "PRAGMA cache_size = 10000;",
};

// A connection, closed at its end.
class connection {
  public:
    // Through the default VFS, or a named one ("unix" is below every layer).
    explicit connection(const char* vfs = nullptr);
    ~connection() { sqlite3_close(db); }
    connection(const connection&) = delete;
    connection& operator=(const connection&) = delete;

    // Runs the PRAGMAs of a creating open of the store, and ignores their results as it does.
    void set_up();
    int run(const std::string& text);
    // The first column of every row, a line each; the error's text instead, if there is one.
    std::string values(const std::string& text);
    sqlite3* handle() const { return db; }

  private:
    sqlite3* db = nullptr;
};

// A kind of commit. Each statement is answered when it has run.
struct scenario {
    const char* name;
    std::vector<std::string> setup;  // without setup there is no database yet
    std::vector<std::string> statements;
};

// Every kind that the daemon makes, and two for which SQLite commits in another way.
const std::vector<scenario>& scenarios();
const scenario& scenario_named(const std::string& name);

std::string insert_text(int number, size_t text_size);

// A scenario with a strength. It is printed as the name of a test.
struct kind {
    std::string scenario;
    commit_strength strength;
};

std::vector<kind> kinds();
std::string name_of_kind(const kind& k);
void PrintTo(const kind& k, std::ostream* out);

// --- States -------------------------------------------------------------------------------------

// A database file's bytes and rows.
struct state {
    std::string bytes;
    std::string rows;
};

// The states before the first statement of a scenario and after each, made without any layer.
std::vector<state> states_of(const scenario& s);

// Puts a database in place, with no file beside it. No bytes: no database.
void restore(const std::string& bytes);
void remove_files();

// All rows of all tables; "" for an empty database, "damaged: ..." for one that is not sound.
std::string rows_through(const char* vfs);

}  // namespace commit_world

#endif  // TESTS_SUPPORT_COMMIT_WORLD_H
