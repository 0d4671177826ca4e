// The world of the login-attempt limiter: settings service, clock and notifier of a test.
#include "support/limiter.h"

#include <dlfcn.h>
#include <sched.h>
#include <sqlite3.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <regex>

#include "support/files.h"
#include "support/recording_notifier.h"
#include "support/sql_trace.h"
#include "zbservice.h"

namespace limiter_world {
time_t now = start_time;
std::string reply;
int call_result = 0;
std::function<void()> during_call;
std::vector<std::string> calls;
int forks = 0;
}  // namespace limiter_world

namespace {

// --- Notifications -------------------------------------------------------------------------------

std::optional<recording_notifier> notifier;
std::vector<std::string> received;

void receive_all() {
    if (!notifier) return;
    while (received.size() < static_cast<size_t>(limiter_world::forks)) {
        received.push_back(notifier->receive());
    }
}

const pid_t test_process = getpid();

}  // namespace

// --- In front of the limiter's own calls ---------------------------------------------------------

extern "C" __attribute__((visibility("default"))) time_t time(time_t* place) noexcept {
    if (place != nullptr) *place = limiter_world::now;
    return limiter_world::now;
}

extern "C" __attribute__((visibility("default"))) int clone(int (*steps)(void*), void* stack,
                                                            int flags, void* arg, ...) noexcept {
    using function = int (*)(int (*)(void*), void*, int, void*, ...);
    static const auto real_clone = reinterpret_cast<function>(dlsym(RTLD_NEXT, "clone"));
    if (getpid() == test_process) {
        receive_all();
        ++limiter_world::forks;
        sql_trace::statements.emplace_back("(notifier)");
    }
    return real_clone(steps, stack, flags, arg);
}

extern "C" __attribute__((visibility("default"))) int zb_call(const char* path, const char* method,
                                                              zb_io* io, int timeout_s, int fd) {
    using namespace limiter_world;
    const std::string request = static_cast<const char*>(zb_io_read(io, nullptr));
    calls.push_back(std::string(path) + " " + method + " " + std::to_string(timeout_s) + " " +
                    std::to_string(fd) + " " + request);
    sql_trace::statements.emplace_back("(settings)");
    if (during_call) during_call();
    if (call_result != 0) return call_result;
    (void)zb_io_realloc(io, 0);
    return zb_io_write(io, reply.data(), reply.size());
}

namespace limiter_world {

// --- Settings ------------------------------------------------------------------------------------

std::string settings(const std::string& members) {
    return R"({"error": 0, "data": {"global": {)" + members + "}}}";
}

std::string settings_on(const std::string& limit, const std::string& time) {
    return settings(R"("enable": true, "limit": )" + limit + R"(, "time": )" + time);
}

// --- Notifier ------------------------------------------------------------------------------------

void install_notifier() { notifier.emplace(); }

std::vector<std::string> notifications() {
    receive_all();
    return received;
}

std::string blocked(const std::string& user) {
    return recording_notifier::words(
        "C001", "0020", "warn",
        "[{0}] Username: {1} has been blocked because reach the login attempt limit.", {user});
}

std::string unblocked(const std::string& user) {
    return recording_notifier::words("C001", "0021", "info",
                                     "[{0}] Unblock the user: Username: {1}.", {user});
}

// --- Limiter -------------------------------------------------------------------------------------

void fail(const std::string& user) {
    std::string name = user;
    EXPECT_EQ(insert_privilege_user_block(name.data()), 0);
}
int check(const std::string& user) {
    std::string name = user;
    return check_privilege_user_block(name.data());
}
void lift(const std::string& user) {
    std::string name = user;
    EXPECT_EQ(delete_privilege_user_block(name.data()), 0);
}
void clean() { EXPECT_EQ(clean_privilege_user_block(), 0); }

// Runs statements on a connection of its own, past the trace.
static std::vector<std::string> run_in_file(const std::string& text) {
    sqlite3* db = nullptr;
    std::vector<std::string> lines;
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_open_v2(db_path, &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK ||
        sqlite3_prepare_v2(db, text.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
        ADD_FAILURE() << text << ": " << sqlite3_errmsg(db);
    }
    int rc = SQLITE_DONE;
    while (statement != nullptr && (rc = sqlite3_step(statement)) == SQLITE_ROW) {
        const void* value = sqlite3_column_blob(statement, 0);
        lines.emplace_back(static_cast<const char*>(value),
                           static_cast<size_t>(sqlite3_column_bytes(statement, 0)));
    }
    EXPECT_EQ(rc, SQLITE_DONE) << text << ": " << sqlite3_errmsg(db);
    sqlite3_finalize(statement);
    sqlite3_close(db);
    return lines;
}

static std::string sql_literal(const std::string& text) {
    std::string literal = "'";
    for (const char c : text) literal += c == '\'' ? "''" : std::string(1, c);
    return literal + "'";
}

std::vector<std::string> rows() {
    return run_in_file(
        "SELECT id || '|' || coalesce(username, '(null)') || '|' || "
        "coalesce(limit_count, '(null)') || '|' || coalesce(timestamp, '(null)') "
        "FROM privilege_user_block ORDER BY id;");
}

std::string count_of_user(const std::string& user) {
    const auto found = run_in_file(
        "SELECT limit_count FROM privilege_user_block WHERE username = " + sql_literal(user) +
        " ORDER BY id LIMIT 1;");
    return found.empty() ? "(no row)" : found[0];
}

void put_row(const std::string& id, const std::string& username, const std::string& limit_count,
             const std::string& timestamp) {
    (void)run_in_file("INSERT INTO privilege_user_block VALUES (" + id + ", " + username + ", " +
                      limit_count + ", " + timestamp + ");");
}

void put_row(const std::string& id) {
    (void)run_in_file("INSERT INTO privilege_user_block VALUES (" + id + ");");
}

void drop_rows() {
    (void)run_in_file("DELETE FROM privilege_user_block;");
    (void)run_in_file("DELETE FROM sqlite_sequence;");
}

void keep_ids_only() {
    (void)run_in_file("DROP TABLE privilege_user_block;");
    (void)run_in_file("CREATE TABLE privilege_user_block (id INTEGER PRIMARY KEY);");
}

// --- What was done -------------------------------------------------------------------------------

// SQLite's own reading of its schema is nobody's statement.
std::vector<std::string> events() {
    std::vector<std::string> own;
    for (const std::string& text : sql_trace::statements) {
        if (text.find("sqlite_master") == std::string::npos) own.push_back(text);
    }
    return own;
}

void forget_events() { sql_trace::statements.clear(); }

std::vector<std::string> look(const std::string& first_id) {
    return {
        "SELECT id FROM (SELECT * FROM privilege_user_block ORDER BY id DESC LIMIT 100000) ORDER "
        "BY id ASC LIMIT 1;",
        "SELECT * FROM privilege_user_block WHERE  id >= " + first_id +
            " ORDER BY id ASC LIMIT 100000 OFFSET 0;",
        "SELECT Count(*) FROM privilege_user_block;"};
}

std::vector<std::string> log_lines() {
    static const std::regex prefix(R"(^\d+ \[(\w+)\] (\S+) \[\d+\] )");
    static const std::regex address("0x[0-9a-f]+");
    std::vector<std::string> lines;
    for (const std::string& line : split_lines(read_file(log_path))) {
        lines.push_back(
            std::regex_replace(std::regex_replace(line, prefix, "$1 $2 "), address, "ADDRESS"));
    }
    return lines;
}

void forget_log() { std::filesystem::remove(log_path); }

std::vector<std::string> sequence(const std::vector<std::vector<std::string>>& parts) {
    std::vector<std::string> all;
    for (const auto& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

}  // namespace limiter_world
