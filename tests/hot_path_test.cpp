// What the hot paths cost, in figures that no noise touches: instructions counted by callgrind, and
// the daemon's system calls seen by strace. Time is not looked at.
//
// Most of an insert and of a look are SQLite's statements. What those cost alone is taken away, so
// that the figures are the daemon's own. One that rises by more than a quarter fails; when the rise
// is meant, or when it has fallen for good, the new one is written down here.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "ravo_api.h"
#include "support/daemon.h"
#include "support/files.h"
#include "support/rows.h"

namespace {

// --- Instructions -------------------------------------------------------------------------------

// The totals of callgrind's dumps, by the names that the program gave them.
std::map<std::string, long> read_counts(const std::string& dumps) {
    std::map<std::string, long> counts;
    for (int n = 1; std::filesystem::exists(dumps + "." + std::to_string(n)); ++n) {
        std::ifstream dump(dumps + "." + std::to_string(n));
        const std::string trigger = "desc: Trigger: Client Request: ";
        const std::string totals = "totals: ";
        std::string name;
        for (std::string line; std::getline(dump, line);) {
            if (line.starts_with(trigger)) name = line.substr(trigger.size());
            if (line.starts_with(totals)) counts[name] = std::stol(line.substr(totals.size()));
        }
    }
    return counts;
}

TEST(hot_path, takes_no_more_instructions_than_are_written_down) {
    int status = -1;
    const pid_t counting = start_process(
        {VALGRIND, "--tool=callgrind", "--callgrind-out-file=/tmp/counts", "-q", HOT_PATHS});
    ASSERT_EQ(waitpid(counting, &status, 0), counting);  // it takes a second or two
    ASSERT_EQ(status, 0);
    auto counts = read_counts("/tmp/counts");
    constexpr long times = 20;  // of each path
    const struct {
        const char* path;
        long instructions;
        long written_down;
    } figures[] = {
        {"an insert, its statements apart", counts["insert"] - counts["insert statements"], 6450},
        {"a look at 200 users, its statements apart", counts["look"] - counts["look statements"],
         44300},
        {"a call over the bus, both sides", counts["call"], 5650},
    };
    for (const auto& [path, instructions, written_down] : figures) {
        const long each = instructions / times;
        EXPECT_GT(each, 0) << path;
        EXPECT_LE(each, written_down + written_down / 4) << path;
        RecordProperty(path, std::to_string(each));
    }
}

// --- System calls -------------------------------------------------------------------------------

// ravod_process starts this in place of the daemon.
void write_tracing_start(const std::string& trace) {
    write_file("/tmp/traced",
               "#!/bin/sh\nexec " STRACE " -qq -o " + trace + " " + ravod_path() + " \"$@\"\n");
    ASSERT_EQ(chmod("/tmp/traced", 0755), 0);
    setenv("RAVOD", "/tmp/traced", 1);
}

// The names of the calls of the last request in a trace: from the look at the spare descriptors,
// which is the handler's first, to the reply.
std::vector<std::string> calls_of_last_request(const std::string& trace) {
    std::istringstream lines(read_file(trace));
    std::vector<std::string> calls;
    std::vector<std::string> last;
    for (std::string line; std::getline(lines, line);) {
        if (line.find("POLLNVAL") != std::string::npos) calls.clear();
        if (line.starts_with("sendmsg(") && line.find("\"zbus\\1") != std::string::npos)
            last = calls;
        calls.push_back(line.substr(0, line.find('(')));
    }
    return last;
}

struct insert_case {
    const char* strength;
    std::vector<std::string> calls;
};

// SQLite's locks, its looks for journals and the checks of its cache are the same in both.
const std::vector<insert_case> insert_cases = {
    {"off",
     {
         "poll",                                  // descriptors are free
         "fcntl",      "fcntl",      "fcntl",     // SHARED
         "newfstatat",                            // a side file
         "newfstatat",                            // a journal
         "pread64",                               // who has written last
         "newfstatat", "newfstatat",              // a log file, the size
         "fcntl",      "fcntl",      "fcntl",     // RESERVED, EXCLUSIVE
         "pwrite64",   "pwrite64",   "pwrite64",  // the pages
         "pwrite64",   "fdatasync",               //
         "fcntl",      "fcntl",      "fcntl",     // given back
     }},
    {"kill-safe",
     {
         "poll",                               // descriptors are free
         "fcntl",      "fcntl",      "fcntl",  // SHARED
         "pread64",                            // a record
         "newfstatat",                         // a journal
         "pread64",                            // who has written last
         "newfstatat", "newfstatat",           // a log file, the size
         "fcntl",      "fcntl",      "fcntl",  // RESERVED, EXCLUSIVE
         "pwrite64",                           // the record
         "pwrite64",   "pwrite64",             // the pages in one run, the first page
         "pwrite64",   "fdatasync",            // the record is void
         "fcntl",      "fcntl",      "fcntl",  // given back
     }},
};

TEST(hot_path, insert_makes_these_system_calls_and_no_others) {
    write_tracing_start("/tmp/trace");
    for (const auto& [strength, calls] : insert_cases) {
        SCOPED_TRACE(strength);
        std::filesystem::remove(db_path);
        const ravod_process daemon({}, {.environment = {std::string("RAVOD_COMMIT=") + strength}});
        for (int n = 0; n < 5; ++n) {
            auto row = zeroed<db_conn_server_log>();
            ASSERT_EQ(add_conn_server_log(&row), 0);
        }
        kill(daemon.pid(), SIGTERM);  // strace, whose end is waited for, goes with it
        wait_for_end(daemon.pid());
        EXPECT_EQ(calls_of_last_request("/tmp/trace"), calls);
    }
}

}  // namespace
