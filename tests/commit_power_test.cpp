// Commits when the power goes. The writes, syncs and names of a run are recorded once; from them
// the disk is put together as it may be at any instant: of what was not synced any part may be
// missing, in whole or by sectors. Each such disk is opened through the layer.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <ostream>
#include <random>
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

constexpr size_t sector = 512;

// --- Recording ----------------------------------------------------------------------------------

struct recorded_step {
    step what;
    size_t answered;  // statements answered before it
};

struct recording {
    std::vector<state> states;
    std::string refused;  // the rows if the refused statement had gone through; it may, unanswered
    std::string side_bytes;  // of the side file, if there was one before
    std::vector<recorded_step> steps;
};

// The statements of a scenario, each on the daemon's connection or, where marked, on one that was
// reopened and journals by itself.
struct power_scenario {
    const char* name;
    const char* base;
    std::vector<bool> journals;
    bool is_first_refused = false;  // the disk is full at its first write to the database
};

const power_scenario power_scenarios[] = {
    {"first_creation", "first_creation", {false, false}},
    {"insert", "insert", {false}},
    {"insert_full_size_row", "insert_full_size_row", {false}},
    {"delete", "delete", {false}},
    {"clean", "clean", {false}},
    {"trim", "trim", {false}},
    {"update", "update", {false}},
    {"several", "several", {false, false, false}},
    {"journal_between", "several", {false, true, false}},
    {"journal_first", "several", {true, false, false}},
    {"journal_last", "several", {false, false, true}},
    {"refused_then_journal", "several", {false, true, false}, true},
};

// Runs a statement while the disk has no room for the database to grow, and keeps the recording on.
void refuse(connection& c, const std::string& statement) {
    const auto keep = fault_vfs::before;
    fault_vfs::before = [&](const step& s) {
        if (s.what == call::write && s.path == database()) return SQLITE_FULL;
        return keep(s);
    };
    EXPECT_EQ(c.run(statement), SQLITE_FULL);
    fault_vfs::before = keep;
}

// The pragmas come before the recording: they are synced, as if the daemon ran for a while.
recording record(const power_scenario& p, commit_strength strength) {
    fault_vfs::install();
    EXPECT_EQ(register_commit_vfs(strength), SQLITE_OK);
    scenario what = scenario_named(p.base);
    recording made;
    if (p.is_first_refused) {
        made.refused = states_of(what)[1].rows;
        what.statements.erase(what.statements.begin());
    }
    made.states = states_of(what);
    restore(made.states[0].bytes);
    std::filesystem::remove(side_file());
    size_t answered = 0;
    const auto keep = [&](const step& s) {
        if (fault_vfs::is_change(s)) made.steps.push_back({s, answered});
        return SQLITE_OK;
    };
    const bool is_first = what.setup.empty();
    if (is_first) fault_vfs::before = keep;
    connection daemon;
    daemon.set_up();
    connection reopened;
    made.states[0].bytes = is_first ? "" : read_file(database());
    made.side_bytes = is_first ? "" : read_file(side_file());
    fault_vfs::before = keep;
    if (p.is_first_refused) refuse(daemon, scenario_named(p.base).statements[0]);
    for (size_t n = 0; n < what.statements.size(); ++n) {
        connection& c =
            p.journals[p.journals.size() - what.statements.size() + n] ? reopened : daemon;
        EXPECT_EQ(c.run(what.statements[n]), SQLITE_OK) << what.statements[n];
        ++answered;
    }
    fault_vfs::before = nullptr;
    return made;
}

// --- A disk -------------------------------------------------------------------------------------

struct inode {
    std::string synced;
    std::vector<step> waiting;
};

// A name that was made or taken away, and not yet synced.
struct name_change {
    std::string path;
    std::shared_ptr<inode> to;  // null: removed
};

class disk {
  public:
    explicit disk(const recording& made) {
        if (!made.states[0].bytes.empty()) add(database(), made.states[0].bytes);
        if (!made.side_bytes.empty()) add(side_file(), made.side_bytes);
        now = synced;
    }

    void run(const step& s) {
        switch (s.what) {
            case call::open: {
                auto fresh = std::make_shared<inode>();
                now[s.path] = fresh;
                names.push_back({s.path, fresh});
                break;
            }
            case call::write:
            case call::truncate:
                now.at(s.path)->waiting.push_back(s);
                break;
            case call::sync: {
                inode& file = *now.at(s.path);
                for (const step& w : file.waiting) apply(file.synced, w);
                file.waiting.clear();
                if (s.syncs_folder) sync_names();
                break;
            }
            case call::remove:
                if (now.erase(s.path) != 0) names.push_back({s.path, nullptr});
                if (s.syncs_folder) sync_names();
                break;
            default:
                break;
        }
    }

    size_t waiting() const {
        size_t count = names.size();
        for (const auto& file : now) count += file.second->waiting.size();
        return count;
    }

    // Puts the disk in place. kept_names of the changed names are there; keep(n, w) makes of the
    // n-th waiting write what is left of it, an empty list of nothing.
    template <class Keep>
    void put_in_place(size_t kept_names, Keep keep) const {
        remove_files();
        auto entries = synced;
        for (size_t n = 0; n < std::min(kept_names, names.size()); ++n) {
            if (names[n].to) {
                entries[names[n].path] = names[n].to;
            } else {
                entries.erase(names[n].path);
            }
        }
        size_t n = 0;
        for (const auto& [path, file] : entries) {
            std::string bytes = file->synced;
            for (const step& w : file->waiting) {
                for (const step& part : keep(n, w)) apply(bytes, part);
                ++n;
            }
            write_file(path, bytes);
        }
    }

    size_t name_count() const { return names.size(); }

    static void apply(std::string& bytes, const step& s) {
        if (s.what == call::truncate) {
            bytes.resize(static_cast<size_t>(s.offset));
            return;
        }
        const auto offset = static_cast<size_t>(s.offset);
        if (bytes.size() < offset + s.bytes.size()) bytes.resize(offset + s.bytes.size());
        bytes.replace(offset, s.bytes.size(), s.bytes);
    }

  private:
    void add(const std::string& path, const std::string& bytes) {
        synced[path] = std::make_shared<inode>(inode{bytes, {}});
    }
    void sync_names() {
        synced = now;
        names.clear();
    }

    std::map<std::string, std::shared_ptr<inode>> synced;
    std::map<std::string, std::shared_ptr<inode>> now;
    std::vector<name_change> names;
};

// --- States of a disk ---------------------------------------------------------------------------

using parts = std::vector<step>;

// Some sectors of a write.
parts torn(const step& s, std::mt19937& random) {
    parts left;
    if (s.what != call::write) return left;
    for (size_t at = 0; at < s.bytes.size();) {
        const size_t offset = static_cast<size_t>(s.offset) + at;
        const size_t count = std::min(sector - offset % sector, s.bytes.size() - at);
        if (random() % 2 == 0) {
            step part = s;
            part.offset = static_cast<int64_t>(offset);
            part.bytes = s.bytes.substr(at, count);
            left.push_back(part);
        }
        at += count;
    }
    return left;
}

class power_loss {
  public:
    power_loss(const recording& r, bool journals) : made(r), may_lose_last(journals) {}

    // Every instant; at each all, none, each write alone and each write missing, then random ones.
    void try_all(size_t random_per_instant) {
        disk now(made);
        for (size_t at = 0; at <= made.steps.size(); ++at) {
            answered = at < made.steps.size() ? made.steps[at].answered : made.states.size() - 1;
            where = "step " + std::to_string(at);
            try_systematic(now);
            for (size_t n = 0; n < random_per_instant; ++n) try_random(now);
            if (testing::Test::HasFailure()) return;
            if (at < made.steps.size()) now.run(made.steps[at].what);
        }
    }
    size_t tried = 0;
    size_t damaged = 0;
    bool expects_damage = false;

  private:
    void try_systematic(const disk& now) {
        const size_t names = now.name_count();
        const auto all = [](size_t, const step& s) { return parts{s}; };
        const auto none = [](size_t, const step&) { return parts{}; };
        for (size_t kept = 0; kept <= names; ++kept) {
            try_one(now, kept, all);
            try_one(now, kept, none);
        }
        for (size_t n = 0; n < now.waiting(); ++n) {
            try_one(now, names,
                    [n](size_t m, const step& s) { return m == n ? parts{s} : parts{}; });
            try_one(now, names,
                    [n](size_t m, const step& s) { return m == n ? parts{} : parts{s}; });
        }
    }
    void try_random(const disk& now) {
        try_one(now, random() % (now.name_count() + 1), [this](size_t, const step& s) {
            switch (random() % 4) {
                case 0:
                    return parts{};
                case 1:
                    return torn(s, random);
                default:
                    return parts{s};
            }
        });
    }
    template <class Keep>
    void try_one(const disk& now, size_t kept_names, Keep keep) {
        ++tried;
        now.put_in_place(kept_names, keep);
        const std::string found = rows_through(nullptr);
        // A deleted journal may come back with the power, and the commit that it was for goes.
        const size_t first = may_lose_last && answered > 0 ? answered - 1 : answered;
        bool is_known = answered == 0 && !made.refused.empty() && found == made.refused;
        for (size_t n = first; n < made.states.size(); ++n) {
            is_known = is_known || found == made.states[n].rows;
        }
        if (is_known) return;
        ++damaged;
        if (!expects_damage) {
            ADD_FAILURE() << where << ", " << answered << " answers:\n" << found.substr(0, 300);
        }
    }

    const recording& made;
    const bool may_lose_last;
    size_t answered = 0;
    std::string where;
    std::mt19937 random{20261121};
};

size_t random_per_instant() {
    const char* chosen = getenv("COMMIT_POWER_LOSSES");
    return chosen != nullptr ? strtoul(chosen, nullptr, 10) : 4;
}

class power_loss_at : public testing::TestWithParam<power_scenario> {};
void PrintTo(const power_scenario& p, std::ostream* out) { *out << p.name; }
std::string name_of(const testing::TestParamInfo<power_scenario>& info) { return info.param.name; }
INSTANTIATE_TEST_SUITE_P(every, power_loss_at, testing::ValuesIn(power_scenarios), name_of);

TEST_P(power_loss_at, costs_no_answered_row_and_damages_nothing) {
    const recording made = record(GetParam(), commit_strength::power_safe);
    const auto& journals = GetParam().journals;
    power_loss loss(made, std::find(journals.begin(), journals.end(), true) != journals.end());
    loss.try_all(random_per_instant());
    printf("%s: %zu states of the disk at %zu instants\n", GetParam().name, loss.tried,
           made.steps.size() + 1);
    EXPECT_GT(loss.tried, made.steps.size());
}

TEST(power_loss_without_the_layer, damages_the_database) {
    const recording made = record(power_scenarios[3], commit_strength::off);
    power_loss loss(made, false);
    loss.expects_damage = true;
    loss.try_all(1);
    EXPECT_GT(loss.damaged, loss.tried / 10);
}

}  // namespace
