// The commit layer: every point at which the process can end and every call that can fail, for
// every kind of commit, each run to exhaustion; and its dealings with journals, locks and other
// files.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "commit_vfs.h"
#include "support/commit_world.h"
#include "support/fault_vfs.h"
#include "support/files.h"

namespace {

using namespace commit_world;
using fault_vfs::call;
using fault_vfs::step;

constexpr int killed = 9;

void use_layer(commit_strength strength) {
    fault_vfs::install();
    ASSERT_EQ(register_commit_vfs(strength), SQLITE_OK);
}

// Runs a scenario's statements on a connection set up as the store's. Returns how many succeeded
// before the first that failed.
size_t run_statements(connection& c, const scenario& s) {
    c.set_up();
    size_t answered = 0;
    for (const std::string& text : s.statements) {
        if (c.run(text) != SQLITE_OK) break;
        ++answered;
    }
    return answered;
}

// --- What must hold after any fault -------------------------------------------------------------

// Opens through the layer: the database is sound, in one of the states that it went through, and
// not in one before the last answer. Then it takes a row, and is sound to a program without the
// layer. Returns the state's number.
std::optional<size_t> check_outcome(const std::vector<state>& states, size_t answered,
                                    const std::string& where) {
    const std::string found = rows_through(nullptr);
    std::optional<size_t> at;
    for (size_t n = answered; n < states.size() && !at; ++n) {
        if (found == states[n].rows) at = n;
    }
    if (!at) {
        ADD_FAILURE() << where << ": after " << answered << " answers the database is\n"
                      << found.substr(0, 500);
        return at;
    }
    if (found.find("conn_server_log") != std::string::npos) {
        connection c;
        c.set_up();
        EXPECT_EQ(c.run(insert_text(999, 20)), SQLITE_OK) << where;
    }
    EXPECT_EQ(rows_through("unix").rfind("damaged", 0), std::string::npos) << where;
    return at;
}

// --- The process ends ---------------------------------------------------------------------------

struct ending {
    size_t answered;
    bool is_complete;  // the scenario ended before its process had to
};

// Runs a scenario in a process that ends at its n-th changing call: before it or, of a write, after
// half of it.
ending run_until(const scenario& s, size_t n, bool in_the_middle) {
    int answers[2];
    EXPECT_EQ(pipe(answers), 0);
    const pid_t child = fork();
    if (child == 0) {
        close(answers[0]);
        size_t seen = 0;
        fault_vfs::before = [&](const step& now) {
            if (!fault_vfs::is_change(now) || ++seen < n) return SQLITE_OK;
            if (in_the_middle && now.write_part) now.write_part(now.bytes.size() / 2);
            _exit(killed);
        };
        {
            connection c;
            c.set_up();
            for (const std::string& text : s.statements) {
                if (c.run(text) != SQLITE_OK) _exit(1);
                if (write(answers[1], "x", 1) != 1) _exit(2);
            }
        }
        _exit(0);
    }
    close(answers[1]);
    size_t answered = 0;
    for (char x = 0; read(answers[0], &x, 1) == 1;) ++answered;
    close(answers[0]);
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && (WEXITSTATUS(status) == 0 || WEXITSTATUS(status) == killed));
    return {answered, status == 0};
}

struct kind {
    std::string scenario;
    commit_strength strength;
};

std::vector<kind> kinds() {
    std::vector<kind> all;
    for (const scenario& s : scenarios()) {
        all.push_back({s.name, commit_strength::kill_safe});
        all.push_back({s.name, commit_strength::power_safe});
    }
    return all;
}

std::string name_of_kind(const kind& k) {
    return k.scenario + (k.strength == commit_strength::kill_safe ? "_kill_safe" : "_power_safe");
}
void PrintTo(const kind& k, std::ostream* out) { *out << name_of_kind(k); }
std::string name_of(const testing::TestParamInfo<kind>& info) { return name_of_kind(info.param); }

class commit_of : public testing::TestWithParam<kind> {
  protected:
    void SetUp() override {
        use_layer(GetParam().strength);
        states = states_of(what);
    }
    const scenario& what = scenario_named(GetParam().scenario);
    std::vector<state> states;
};
INSTANTIATE_TEST_SUITE_P(every, commit_of, testing::ValuesIn(kinds()), name_of);

TEST_P(commit_of, is_whole_wherever_the_process_ends) {
    for (const bool in_the_middle : {false, true}) {
        bool is_complete = false;
        for (size_t n = 1; !is_complete; ++n) {
            restore(states[0].bytes);
            const ending end = run_until(what, n, in_the_middle);
            is_complete = end.is_complete;
            check_outcome(states, end.answered,
                          "call " + std::to_string(n) + (in_the_middle ? ", half" : ""));
            ASSERT_FALSE(HasFailure());
            ASSERT_LT(n, 10000U);
        }
    }
}

// A process that ends while it finishes what another has left. Each point of each recovery is
// tried, which takes its time where there are many; those are left to the tests in long/.
TEST_P(commit_of, is_whole_wherever_its_recovery_ends) {
    const std::set<std::string> large = {"trim", "spill", "several"};
    if (large.contains(GetParam().scenario) && getenv("COMMIT_LONG") == nullptr) return;
    bool is_complete = false;
    size_t recoveries = 0;
    for (size_t n = 1; !is_complete; ++n) {
        restore(states[0].bytes);
        const ending first = run_until(what, n, false);
        is_complete = first.is_complete;
        if (read_file(side_file()).substr(0, 7) != "RAVOCMT") continue;
        const std::string left_database = read_file(database());
        const std::string left_side = read_file(side_file());
        ++recoveries;
        bool is_recovered = false;
        for (size_t m = 1; !is_recovered; ++m) {
            // In place, since the record of a first commit names the inode.
            write_file(database(), left_database);
            write_file(side_file(), left_side);
            const scenario reading = {"", {}, {"SELECT count(*) FROM sqlite_master;"}};
            is_recovered = run_until(reading, m, false).is_complete;
            check_outcome(states, first.answered, std::to_string(n) + "/" + std::to_string(m));
            ASSERT_FALSE(HasFailure());
        }
    }
    EXPECT_GT(recoveries, 0U);
}

// --- A call fails -------------------------------------------------------------------------------

struct fault {
    const char* name;
    bool lasts;                // until the connection is closed; otherwise it happens once
    int (*make)(const step&);  // SQLITE_OK: a call that this fault does not meet
};

int io_error(const step& s) {
    switch (s.what) {
        case call::open:
            return SQLITE_CANTOPEN;
        case call::write:
            return SQLITE_IOERR_WRITE;
        case call::truncate:
            return SQLITE_IOERR_TRUNCATE;
        case call::sync:
            return SQLITE_IOERR_FSYNC;
        case call::remove:
            return SQLITE_IOERR_DELETE;
        case call::read:
            return SQLITE_IOERR_READ;
        case call::size:
            return SQLITE_IOERR_FSTAT;
        case call::lock:
            return SQLITE_IOERR_LOCK;
        case call::unlock:
            return SQLITE_IOERR_UNLOCK;
        case call::access:
            return SQLITE_IOERR_ACCESS;
    }
    return SQLITE_IOERR;
}

int short_write(const step& s) {
    if (s.what != call::write) return SQLITE_OK;
    s.write_part(s.bytes.size() / 2);
    return SQLITE_FULL;
}

int late_write_error(const step& s) {
    if (s.what != call::write) return SQLITE_OK;
    s.write_part(s.bytes.size());
    return SQLITE_IOERR_WRITE;
}

int disk_full(const step& s) { return s.what == call::write ? SQLITE_FULL : SQLITE_OK; }

int failed_sync(const step& s) { return s.what == call::sync ? SQLITE_IOERR_FSYNC : SQLITE_OK; }

constexpr fault faults[] = {
    {"EIO, once", false, io_error},           {"EIO, lasting", true, io_error},
    {"short write", false, short_write},      {"late write error", false, late_write_error},
    {"full, once", false, disk_full},         {"full, lasting", true, disk_full},
    {"sync fails, once", false, failed_sync}, {"sync fails, lasting", true, failed_sync},
};

// Runs a scenario whose n-th call that the fault can meet fails. Sets was_met to whether there was
// one. Returns the answers.
size_t run_with_fault(const scenario& s, const fault& f, size_t n, bool& was_met) {
    size_t seen = 0;
    was_met = false;
    size_t answered = 0;
    {
        connection c;
        fault_vfs::before = [&](const step& now) {
            if (was_met && !f.lasts) return SQLITE_OK;
            if (was_met) return f.make(now);
            step probe = now;
            probe.write_part = [](size_t) {};
            if (f.make(probe) == SQLITE_OK || ++seen < n) return SQLITE_OK;
            was_met = true;
            return f.make(now);
        };
        answered = run_statements(c, s);
        fault_vfs::before = nullptr;
    }
    return answered;
}

TEST_P(commit_of, is_whole_whatever_call_fails) {
    for (const fault& f : faults) {
        bool was_met = true;
        for (size_t n = 1; was_met; ++n) {
            restore(states[0].bytes);
            const size_t answered = run_with_fault(what, f, n, was_met);
            EXPECT_TRUE(was_met || answered == what.statements.size()) << "without a fault";
            check_outcome(states, answered, std::string(f.name) + " at " + std::to_string(n));
            ASSERT_FALSE(HasFailure());
            ASSERT_LT(n, 20000U);
        }
    }
}

// A call fails while a record is being finished: once for each point at which the process can have
// ended. Those that have an extension are tried, the rest in the tests in long/.
TEST_P(commit_of, is_whole_whatever_call_of_its_recovery_fails) {
    const std::set<std::string> always = {"first_creation", "insert_full_size_row"};
    const bool is_long = getenv("COMMIT_LONG") != nullptr;
    if (!is_long &&
        !(always.contains(what.name) && GetParam().strength == commit_strength::kill_safe))
        return;
    const scenario reading = {"", {}, {"SELECT count(*) FROM sqlite_master;"}};
    bool is_complete = false;
    for (size_t n = 1; !is_complete; ++n) {
        restore(states[0].bytes);
        const ending first = run_until(what, n, false);
        is_complete = first.is_complete;
        if (read_file(side_file()).substr(0, 7) != "RAVOCMT") continue;
        const std::string left_database = read_file(database());
        const std::string left_side = read_file(side_file());
        for (const fault& f : faults) {
            bool was_met = true;
            for (size_t m = 1; was_met; ++m) {
                write_file(database(), left_database);
                write_file(side_file(), left_side);
                (void)run_with_fault(reading, f, m, was_met);
                check_outcome(states, first.answered,
                              std::to_string(n) + ", " + f.name + " at " + std::to_string(m));
                ASSERT_FALSE(HasFailure());
            }
        }
    }
}

// --- The checks can fail ------------------------------------------------------------------------

TEST(commit_layer_off, lets_a_kill_damage_the_database) {
    use_layer(commit_strength::off);
    const scenario& what = scenario_named("trim");
    const std::vector<state> states = states_of(what);
    size_t damaged = 0;
    bool is_complete = false;
    for (size_t n = 1; !is_complete; ++n) {
        restore(states[0].bytes);
        is_complete = run_until(what, n, false).is_complete;
        const std::string rows = rows_through(nullptr);
        if (rows != states[0].rows && rows != states[1].rows) ++damaged;
    }
    EXPECT_GT(damaged, 20U);
}

}  // namespace
