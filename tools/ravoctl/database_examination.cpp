// Whether the daemon's database is sound, looked at beside the running daemon.
//
// SQLite looks at all pages in one step, in which nothing can end it. So a process of its own does
// it, which the alarm kills; the kernel then takes its locks away.
#include "database_examination.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "table_store.h"

const char* const examined_database = database_path;

namespace {

// As exit statuses.
enum child_result { is_sound = 0, is_damaged = 1, is_unknown = 2 };

child_result look() {
    constexpr int patience_ms = 1000 * static_cast<int>(longest_examination);
    sqlite3* db = nullptr;
    sqlite3_stmt* check = nullptr;
    int code = sqlite3_open_v2(database_path, &db, SQLITE_OPEN_READONLY, nullptr);
    if (code == SQLITE_OK) code = sqlite3_busy_timeout(db, patience_ms);
    if (code == SQLITE_OK) {
        code = sqlite3_prepare_v2(db, "PRAGMA quick_check(1)", -1, &check, nullptr);
    }
    if (code == SQLITE_OK) code = sqlite3_step(check);
    if (code == SQLITE_CORRUPT || code == SQLITE_NOTADB) return is_damaged;
    if (code != SQLITE_ROW) return is_unknown;
    const auto* words = reinterpret_cast<const char*>(sqlite3_column_text(check, 0));
    return words != nullptr && strcmp(words, "ok") == 0 ? is_sound : is_damaged;
}

}  // namespace

database_state examine_database() {
    const pid_t child = fork();
    if (child == 0) {
        alarm(longest_examination);
        _exit(look());
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status)) {
        return database_state::unknown;
    }
    switch (WEXITSTATUS(status)) {
        case is_sound:
            return database_state::sound;
        case is_damaged:
            return database_state::damaged;
        default:
            return database_state::unknown;
    }
}
