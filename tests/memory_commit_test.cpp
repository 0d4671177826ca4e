// Memory that runs out in a commit: each allocation of each kind of commit fails once, in a process
// of its own, under both strengths. The commit is then whole or absent.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "commit_vfs.h"
#include "support/alloc_fault.h"
#include "support/bus.h"
#include "support/commit_world.h"

namespace {

using namespace commit_world;
using alloc_fault::failing_allocation;

// Runs the statements on a connection set up as the store's, and then another one. The n-th
// allocation of the statements fails. Returns how many of them succeeded before the first that
// failed.
size_t run_statements(const scenario& s, size_t n) {
    connection c;
    c.set_up();
    size_t answered = 0;
    {
        const failing_allocation fault(n);
        while (answered < s.statements.size() &&
               sqlite3_exec(c.handle(), s.statements[answered].c_str(), nullptr, nullptr,
                            nullptr) == SQLITE_OK) {
            ++answered;
        }
    }
    return answered;
}

class memory_of_commit : public testing::TestWithParam<kind> {
  protected:
    void SetUp() override {
        ASSERT_EQ(sqlite3_config(SQLITE_CONFIG_LOOKASIDE, 0, 0), SQLITE_OK);
        ASSERT_EQ(register_commit_vfs(GetParam().strength), SQLITE_OK);
        states = states_of(what);
    }
    const scenario& what = scenario_named(GetParam().scenario);
    std::vector<state> states;
};
INSTANTIATE_TEST_SUITE_P(every, memory_of_commit, testing::ValuesIn(kinds()),
                         testing::PrintToStringParamName());

TEST_P(memory_of_commit, runs_out_and_the_commit_is_whole_or_absent) {
    restore(states[0].bytes);
    EXPECT_EQ(run_statements(what, 0), what.statements.size());
    const auto expect_whole_or_absent = [&](size_t n) {
        const size_t blocks = alloc_fault::live_blocks();
        const size_t descriptors = bus_test::open_descriptors();
        const size_t answered = run_statements(what, n);
        EXPECT_EQ(alloc_fault::live_blocks(), blocks);
        EXPECT_EQ(bus_test::open_descriptors(), descriptors);
        const std::string found = rows_through(nullptr);
        EXPECT_TRUE(std::any_of(states.begin() + static_cast<ptrdiff_t>(answered), states.end(),
                                [&](const state& s) { return found == s.rows; }))
            << "after " << answered << " answers:\n"
            << found.substr(0, 500);
        if (found.find("conn_server_log") != std::string::npos) {
            connection next;
            next.set_up();
            EXPECT_EQ(next.run(insert_text(999, 20)), SQLITE_OK);
        }
        EXPECT_FALSE(rows_through("unix").starts_with("damaged"));
    };
    alloc_fault::exhaust(
        name_of_kind(GetParam()), expect_whole_or_absent, [&] { restore(states[0].bytes); }, 5);
}

}  // namespace
