// A user name on its way through the limiter, whose UPDATE is formatted twice: whatever its bytes,
// no other user's row changes, and it never has more than one row at a time.
//
// Input: the name.
#include "bystanders.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::input in(data, size);
    const std::string name = in.line().substr(0, 3000);
    if (bystanders::is_one(name)) return 0;
    store_world::begin();
    store_world::settings = bystanders::settings;
    (void)store_world::run(bystanders::rows);
    const auto before = bystanders::state();
    bystanders::go_through_limiter(name);
    fuzz::expect(bystanders::state() == before, "no other user's row changes");
    fuzz::expect(store_world::run("SELECT 1 FROM privilege_user_block").size() <= 3 + 2,
                 "a name has few rows");
    return 0;
}
