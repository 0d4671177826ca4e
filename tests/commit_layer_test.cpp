// The commit layer: every point at which the process can end and every call that can fail, for
// every kind of commit, each run to exhaustion; and its dealings with journals, locks and other
// files.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "commit_vfs.h"
#include "support/commit_world.h"
#include "support/fault_vfs.h"
#include "support/files.h"

namespace {

using namespace commit_world;
using fault_vfs::fault;

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
        fault_vfs::end_at_change(n, in_the_middle, killed);
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

class commit_of : public testing::TestWithParam<kind> {
  protected:
    void SetUp() override {
        use_layer(GetParam().strength);
        states = states_of(what);
    }
    const scenario& what = scenario_named(GetParam().scenario);
    std::vector<state> states;
};
INSTANTIATE_TEST_SUITE_P(every, commit_of, testing::ValuesIn(kinds()),
                         testing::PrintToStringParamName());

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

// The kinds with which the short form tries what has a number of points squared; the tests in long/
// try all of them.
bool is_tried_squared(const kind& k) {
    const std::set<std::string> always = {"first_creation", "insert_full_size_row"};
    return getenv("COMMIT_LONG") != nullptr ||
           (always.contains(k.scenario) && k.strength == commit_strength::kill_safe);
}

// What a process has left that ended before its n-th call.
struct leftover {
    size_t n;
    size_t answered;
    std::string database_bytes;
    std::string side_bytes;

    // In place, since the record of a first commit names the inode.
    void put_back() const {
        write_file(database(), database_bytes);
        write_file(side_file(), side_bytes);
    }
};

// Visits each point at which a process leaves a record to be finished, until a check fails.
void for_each_record_left(const scenario& s, const state& start,
                          const std::function<void(const leftover&)>& visit) {
    size_t records = 0;
    bool is_complete = false;
    for (size_t n = 1; !is_complete && !testing::Test::HasFailure(); ++n) {
        restore(start.bytes);
        const ending first = run_until(s, n, false);
        is_complete = first.is_complete;
        if (read_file(side_file()).substr(0, 7) != "RAVOCMT") continue;
        ++records;
        visit({n, first.answered, read_file(database()), read_file(side_file())});
    }
    EXPECT_GT(records, 0U);
}

// Opens the database, which finishes a record.
const scenario reading = {"", {}, {"SELECT count(*) FROM sqlite_master;"}};

// A process that ends while it finishes what another has left.
TEST_P(commit_of, is_whole_wherever_its_recovery_ends) {
    if (!is_tried_squared(GetParam())) return;
    for_each_record_left(what, states[0], [&](const leftover& left) {
        bool is_recovered = false;
        for (size_t m = 1; !is_recovered && !HasFailure(); ++m) {
            left.put_back();
            is_recovered = run_until(reading, m, false).is_complete;
            check_outcome(states, left.answered, std::to_string(left.n) + "/" + std::to_string(m));
        }
    });
}

// --- A call fails -------------------------------------------------------------------------------

// Runs a scenario whose n-th call that the fault can meet fails. Sets was_met to whether there was
// one. Returns the answers.
size_t run_with_fault(const scenario& s, const fault& f, size_t n, bool& was_met) {
    was_met = false;
    connection c;
    fail_nth(f, n, was_met);
    const size_t answered = run_statements(c, s);
    fault_vfs::before = nullptr;
    return answered;
}

// The kinds with the most calls are tried in full by the tests in long/.
TEST_P(commit_of, is_whole_whatever_call_fails) {
    const std::set<std::string> large = {"trim", "spill", "several", "larger_pages"};
    const bool is_short = getenv("COMMIT_LONG") == nullptr;
    if (is_short && large.contains(what.name) &&
        GetParam().strength != commit_strength::kill_safe) {
        return;
    }
    for (const fault& f : fault_vfs::faults) {
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

// A call fails while a record is being finished, once for each point at which the process can have
// ended.
TEST_P(commit_of, is_whole_whatever_call_of_its_recovery_fails) {
    if (!is_tried_squared(GetParam())) return;
    for_each_record_left(what, states[0], [&](const leftover& left) {
        for (const fault& f : fault_vfs::faults) {
            bool was_met = true;
            for (size_t m = 1; was_met && !HasFailure(); ++m) {
                left.put_back();
                (void)run_with_fault(reading, f, m, was_met);
                check_outcome(states, left.answered,
                              std::to_string(left.n) + ", " + f.name + " at " + std::to_string(m));
            }
        }
    });
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
