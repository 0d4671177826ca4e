// Callers that insert connections and list them as fast as they are answered, each on a thread of
// its own, and what they were answered. And the database as another program sees it.
#ifndef TESTS_SUPPORT_CALLERS_H
#define TESTS_SUPPORT_CALLERS_H

#include <gtest/gtest.h>
#include <sched.h>
#include <sqlite3.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ravo_api.h"
#include "support/files.h"
#include "support/rows.h"
#include "zbservice.h"

// --- The database -------------------------------------------------------------------------------

// The first column of every row.
inline std::multiset<std::string> values_in_database(const char* text) {
    const auto collect = [](void* found, int, char** values, char**) {
        static_cast<std::multiset<std::string>*>(found)->insert(values[0] ? values[0] : "NULL");
        return 0;
    };
    std::multiset<std::string> found;
    sqlite3* db = nullptr;
    EXPECT_EQ(sqlite3_open_v2(db_path, &db, SQLITE_OPEN_READWRITE, nullptr), SQLITE_OK);
    sqlite3_busy_timeout(db, 10000);
    EXPECT_EQ(sqlite3_exec(db, text, collect, &found, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
    sqlite3_close(db);
    return found;
}

inline void expect_sound_database() {
    EXPECT_EQ(values_in_database("PRAGMA integrity_check;"), std::multiset<std::string>{"ok"});
}

// --- What was answered --------------------------------------------------------------------------

// Names of rows by what became of the call. What is in neither set is not in the table.
struct answers_given {
    std::set<std::string> stored;   // answered with 0
    std::set<std::string> unknown;  // the call ended without an answer
    size_t refused = 0;             // never begun: nobody serves, or the endpoint stopped first
    size_t failed_lists = 0;

    void add(const std::string& name, int result) {
        if (result == ZB_OK) {
            stored.insert(name);
        } else if (result == ZB_ERROR_UNREACHABLE || result == ZB_ERROR_NO_REPLY) {
            ++refused;
        } else {
            unknown.insert(name);
        }
    }
};

// Each stored row once, no row that was refused.
inline void expect_rows(const answers_given& given) {
    std::multiset<std::string> rest = values_in_database("SELECT username FROM conn_server_log;");
    for (const std::string& name : given.stored) {
        const auto row = rest.find(name);
        if (row == rest.end()) {
            ADD_FAILURE() << name << " is lost";
        } else {
            rest.erase(row);
        }
    }
    for (const std::string& name : given.unknown) rest.erase(name);
    if (!rest.empty()) ADD_FAILURE() << rest.size() << " rows too many, " << *rest.begin();
}

// --- Callers ------------------------------------------------------------------------------------

// Every second row is full, so that commits differ in length.
inline db_conn_server_log named_connection(const std::string& name, bool is_full) {
    auto row = zeroed<db_conn_server_log>();
    set_text(row.username, name);
    if (is_full) {
        for (auto* text : {&row.device_info, &row.source_ip, &row.outgoing}) {
            set_text(*text, std::string(1000, 'x'));
        }
    }
    return row;
}

class callers {
  public:
    // name begins the names of the rows; it must not come again.
    callers(int count, const std::string& name) {
        for (int n = 0; n < count; ++n) {
            threads.emplace_back([this, of_one = name + "." + std::to_string(n)] { call(of_one); });
        }
    }
    ~callers() { finish(); }
    callers(const callers&) = delete;
    callers& operator=(const callers&) = delete;

    // Waits until one more call has ended.
    void wait_for_call() const { ended.wait(ended.load()); }

    // Makes no more calls. What was answered stays until the end of this object.
    const answers_given& finish() {
        is_over = true;
        for (std::thread& thread : threads) thread.join();
        threads.clear();
        return given;
    }

  private:
    void call(const std::string& name) {
        for (size_t n = 0; !is_over; ++n) {
            const std::string row_name = name + "." + std::to_string(n);
            db_conn_server_log row = named_connection(row_name, n % 2 == 0);
            const int result = add_conn_server_log(&row);
            const bool is_listed = result != ZB_OK || n % 4 != 0 || list();
            {
                const std::lock_guard guard(mutex);
                given.add(row_name, result);
                if (!is_listed) ++given.failed_lists;
            }
            if (result == ZB_ERROR_UNREACHABLE) sched_yield();
            ++ended;
            ended.notify_all();
        }
    }
    static bool list() {
        db_query_cond newest = page(0, 5);
        newest.order_style = 1;
        db_conn_server_log_query header = {};
        db_conn_server_log_query* query = &header;
        (void)list_conn_server_log(&newest, &query);
        free(header.data);
        return header.data != nullptr && header.count > 0;
    }

    std::atomic<bool> is_over{false};
    std::atomic<size_t> ended{0};
    std::mutex mutex;
    answers_given given;
    std::vector<std::thread> threads;
};

#endif  // TESTS_SUPPORT_CALLERS_H
