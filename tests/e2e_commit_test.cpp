// The daemon is killed while it writes, again and again, on one database: what it answered is
// there, and the file is sound. And the choice of what a commit survives.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "commit_vfs.h"
#include "ravo_api.h"
#include "support/daemon.h"
#include "support/files.h"

namespace {

constexpr char side_path[] = "/etc/config/ravo/ravo.db-commit";
constexpr int killed = 1000 + SIGKILL;

size_t kill_count() {
    const char* chosen = getenv("COMMIT_KILLS");
    return chosen != nullptr ? strtoul(chosen, nullptr, 10) : 40;
}

// --- The database, through the layer as the next daemon has it ----------------------------------

int collect(void* set, int /*columns*/, char** values, char** /*names*/) {
    static_cast<std::multiset<std::string>*>(set)->insert(values[0] != nullptr ? values[0] : "");
    return 0;
}

std::multiset<std::string> values(const char* text) {
    std::multiset<std::string> found;
    sqlite3* db = nullptr;
    EXPECT_EQ(sqlite3_open(db_path, &db), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(db, text, collect, &found, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
    sqlite3_close(db);
    return found;
}

// --- One life of the daemon ---------------------------------------------------------------------

// A process that kills another some time after an insert has begun. It waits by looking at the
// clock, which is finer than any sleep.
class killer {
  public:
    killer(pid_t victim, std::chrono::microseconds delay)
        : thread([this, victim, delay] {
              while (!is_armed) std::this_thread::yield();
              const auto end = std::chrono::steady_clock::now() + delay;
              while (std::chrono::steady_clock::now() < end) {
              }
              kill(victim, SIGKILL);
          }) {}
    ~killer() {
        arm();
        thread.join();
    }
    killer(const killer&) = delete;
    killer& operator=(const killer&) = delete;
    void arm() { is_armed = true; }

  private:
    std::atomic<bool> is_armed{false};
    std::thread thread;
};

// Every second row is full, so that commits differ in length.
db_conn_server_log numbered(size_t number) {
    db_conn_server_log record = {};
    const std::string name = "user" + std::to_string(number);
    memcpy(record.username, name.c_str(), name.size());
    if (number % 2 == 0) {
        for (auto* text : {&record.device_info, &record.source_ip, &record.outgoing}) {
            memset(*text, 'x', sizeof *text - 1);
        }
    }
    return record;
}

struct life {
    std::mt19937& random;
    size_t& next;
    std::multiset<std::string>& answered;

    void live() {
        ready_socket ready;
        const pid_t daemon = start_process({ravod_path()}, {.environment = {ready.environment()}});
        ready.wait();
        {
            killer death(daemon, std::chrono::microseconds(random() % 3000));
            const size_t quiet = random() % 4;  // answered before the clock runs
            for (size_t n = 0;; ++n, ++next) {
                if (n == quiet) death.arm();
                db_conn_server_log record = numbered(next);
                if (add_conn_server_log(&record) != 0) break;
                answered.insert(record.username);
            }
            ++next;
        }
        ASSERT_EQ(wait_for_exit(daemon), killed);
    }
};

// --- Kills --------------------------------------------------------------------------------------

TEST(e2e_commit, killed_daemon_loses_no_answered_row_and_damages_nothing) {
    ASSERT_EQ(register_commit_vfs(commit_strength::kill_safe), SQLITE_OK);
    std::mt19937 random(20261121);
    size_t next = 1;
    std::multiset<std::string> answered;
    size_t unfinished = 0;
    size_t interrupted = 0;
    for (size_t n = 0; n < kill_count(); ++n) {
        if (n % 100 == 0) {  // the file stays small
            for (const char* path : {db_path, side_path}) std::filesystem::remove(path);
            answered.clear();
        }
        life{random, next, answered}.live();
        if (read_file(side_path).rfind("RAVOCMT", 0) == 0) ++unfinished;
        ASSERT_EQ(values("PRAGMA integrity_check;"), std::multiset<std::string>{"ok"});
        std::multiset<std::string> found = values("SELECT username FROM conn_server_log;");
        for (const std::string& name : answered) ASSERT_EQ(found.count(name), 1U) << name;
        // The row whose answer never came may be there.
        if (found.size() > answered.size()) ++interrupted;
        answered = found;
    }
    printf("%zu kills, %zu left a record to be finished, %zu an unanswered row\n", kill_count(),
           unfinished, interrupted);
}

// --- The choice ---------------------------------------------------------------------------------

struct choice {
    const char* value;  // null: not set
    bool has_side_file;
    std::string complaint;
};

TEST(e2e_commit, environment_chooses_the_strength) {
    const std::string tail = ", not kill-safe, power-safe or off; kill-safe holds\n";
    const choice choices[] = {
        {nullptr, true, ""},
        {"kill-safe", true, ""},
        {"power-safe", true, ""},
        {"off", false, ""},
        {"", true, "RAVOD_COMMIT is \"\"" + tail},
        {"Off", true, "RAVOD_COMMIT is \"Off\"" + tail},
        {"%s%n", true, "RAVOD_COMMIT is \"%s%n\"" + tail},
    };
    for (const choice& c : choices) {
        for (const char* path : {db_path, side_path}) std::filesystem::remove(path);
        process_options how = {.output = "/tmp/output"};
        if (c.value != nullptr) how.environment = {std::string("RAVOD_COMMIT=") + c.value};
        {
            ravod_process daemon({}, how);
            db_conn_server_log record = numbered(1);
            EXPECT_EQ(add_conn_server_log(&record), 0);
        }
        EXPECT_EQ(std::filesystem::exists(side_path), c.has_side_file) << c.value;
        EXPECT_EQ(read_file("/tmp/output"), c.complaint);
        EXPECT_EQ(values("SELECT count(*) FROM conn_server_log;"), std::multiset<std::string>{"1"});
    }
}

}  // namespace
