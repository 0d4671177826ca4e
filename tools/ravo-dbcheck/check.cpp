// Whether a database file is sound.
#include "check.h"

#include <algorithm>
#include <cstddef>

namespace {

constexpr size_t longest_reason = 200;
constexpr int lock_patience_ms = 500;
constexpr int steps_between_looks = 1000;  // SQLite's instructions between two looks at the clock

int is_over(void* end) { return static_cast<const deadline*>(end)->has_passed() ? 1 : 0; }

// What SQLite's code says of the file. It is damage when no other cause is known.
finding finding_of(int code) {
    switch (code & 0xff) {
        case SQLITE_OK:
        case SQLITE_ROW:
        case SQLITE_DONE:
            return finding::sound;
        case SQLITE_INTERRUPT:
            return finding::unfinished;
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
            return finding::in_use;
        case SQLITE_IOERR:
            return code == SQLITE_IOERR_READ ? finding::damaged : finding::failed;
        case SQLITE_READONLY:  // plain: the file's header forbids to write
            return code == SQLITE_READONLY ? finding::damaged : finding::failed;
        case SQLITE_NOMEM:
        case SQLITE_FULL:
        case SQLITE_PERM:
        case SQLITE_CANTOPEN:
        case SQLITE_PROTOCOL:
            return finding::failed;
        default:
            return finding::damaged;
    }
}

// SQLite's words may hold names out of the damaged file.
std::string plain(std::string words) {
    words.resize(std::min(words.size(), longest_reason));
    std::ranges::replace_if(
        words, [](char c) { return c < ' ' || c > '~'; }, '?');
    return words;
}

check_result result_of(int code, sqlite3* db) {
    const finding found = finding_of(code);
    return {found, found == finding::sound ? "" : plain(sqlite3_errmsg(db))};
}

int prepare(sqlite3* db, const char* text, statement_handle& prepared) {
    sqlite3_stmt* made = nullptr;
    const int rc = sqlite3_prepare_v2(db, text, -1, &made, nullptr);
    prepared.reset(made);
    return rc;
}

// Pages, tables and their indexes. The verdict may begin with a line that only names the database.
check_result check_structure(sqlite3* db) {
    statement_handle pragma;
    int rc = prepare(db, "PRAGMA integrity_check(1);", pragma);
    if (rc != SQLITE_OK) return result_of(rc, db);
    rc = sqlite3_step(pragma.get());
    if (rc != SQLITE_ROW) return result_of(rc, db);
    const auto* words = reinterpret_cast<const char*>(sqlite3_column_text(pragma.get(), 0));
    const std::string verdict = words != nullptr ? words : "no verdict";
    if (verdict == "ok") return {finding::sound, ""};
    return {finding::damaged, plain(verdict.substr(verdict.rfind('\n') + 1))};
}

}  // namespace

int open_for_check(const char* path, db_handle& db) {
    sqlite3* opened = nullptr;
    const int rc = sqlite3_open_v2(path, &opened, SQLITE_OPEN_READWRITE, nullptr);
    db.reset(opened);
    if (rc == SQLITE_OK) {
        sqlite3_extended_result_codes(opened, 1);
        sqlite3_busy_timeout(opened, lock_patience_ms);
    }
    return rc;
}

check_result check_database(const char* path, deadline end) {
    db_handle db;
    int rc = open_for_check(path, db);
    if (rc != SQLITE_OK) return result_of(rc, db.get());
    // Locks, and reads the header. Writes nothing: the transaction changes nothing.
    rc = sqlite3_exec(db.get(), "BEGIN EXCLUSIVE;", nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK) return result_of(rc, db.get());
    sqlite3_progress_handler(db.get(), steps_between_looks, is_over, &end);
    check_result result = check_structure(db.get());
    sqlite3_progress_handler(db.get(), 0, nullptr, nullptr);
    (void)sqlite3_exec(db.get(), "ROLLBACK;", nullptr, nullptr, nullptr);
    return result;
}
