// How long a check or a salvage may take.
#ifndef DBCHECK_DEADLINE_H
#define DBCHECK_DEADLINE_H

#include <algorithm>
#include <chrono>
#include <cstdint>

class deadline {
  public:
    using clock = std::chrono::steady_clock;

    explicit deadline(clock::duration budget) : end(clock::now() + budget) {}
    bool has_passed() const { return clock::now() > end; }

  private:
    clock::time_point end;
};

// A service is given 90 seconds for its start. A check that takes longer than its part costs
// nothing, a salvage loses rows.
//
// The check: about a full table of the largest rows, each that a file has begun, is worth ten
// seconds, up to more than the store has.
inline constexpr int64_t full_table_bytes = int64_t{512} * 1024 * 1024;
inline constexpr std::chrono::seconds full_table_budget{10};
inline constexpr int64_t most_full_tables = 3;
inline constexpr std::chrono::seconds salvage_budget{50};

constexpr std::chrono::seconds check_budget(int64_t file_bytes) {
    return full_table_budget * std::min(1 + file_bytes / full_table_bytes, most_full_tables);
}

#endif  // DBCHECK_DEADLINE_H
