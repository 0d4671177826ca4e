// Users who have nothing to do with a hostile name, and whose rows it is not to touch.
#ifndef TESTS_FUZZ_BYSTANDERS_H
#define TESTS_FUZZ_BYSTANDERS_H

#include <string>
#include <vector>

#include "fuzz_target.h"
#include "store_world.h"

namespace bystanders {

// Rows of three users, with ids between which others could come; one is blocked.
inline constexpr char rows[] =
    "INSERT INTO privilege_user_block VALUES (1, 'alice', 2, 1000), (2, 'bob', 999, 4000000000), "
    "(9, 'o''hara 100%', 1, 2000)";

inline bool is_one(const std::string& name) {
    return name == "alice" || name == "bob" || name == "o'hara 100%";
}

inline std::vector<std::string> state() {
    return store_world::run(
        "SELECT id || '|' || username || '|' || limit_count || '|' || timestamp FROM "
        "privilege_user_block WHERE id IN (1, 2, 9) ORDER BY id");
}

// Nobody reaches this limit, so that a check lets nobody go.
inline constexpr char settings[] =
    R"({"error": 0, "data": {"global": {"enable": true, "limit": 900, "time": 5}}})";

// A user's way through the limiter: failures, until a row is updated twice; a check; a lift.
// Expects that each step is answered.
inline void go_through_limiter(const std::string& name) {
    for (int n = 0; n < 3; ++n) {
        fuzz::expect(store_world::ask("db_privilege_user_block_insert", name).replied, "a failure");
    }
    fuzz::expect(store_world::ask("db_privilege_user_block_check", name).bytes == "0",
                 "a user below the limit is not blocked");
    fuzz::expect(store_world::ask("db_privilege_user_block_del", name).replied, "a lift");
}

}  // namespace bystanders

#endif  // TESTS_FUZZ_BYSTANDERS_H
