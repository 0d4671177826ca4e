// The store as the daemon has it, for fuzz targets: all five tables over a real file, a stand-in
// bus under the handlers, and no notifier. It begins anew for each input, so that an input does the
// same whenever it is run. For use in a throw-away root only.
//
// The modules' sources are compiled into the target by module_state.cpp.
#ifndef TESTS_FUZZ_STORE_WORLD_H
#define TESTS_FUZZ_STORE_WORLD_H

#include <cstddef>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "table_store.h"

namespace store_world {

// --- The modules ---------------------------------------------------------------------------------

// Keeps a module's first state. Made before the program's first input.
class module_registration {
  public:
    explicit module_registration(table_state& state);
};

// All modules as unbuilt as they start, no file and no log.
void forget();
// The same; then the tables, created in the daemon's order.
void begin();

// --- The tables ----------------------------------------------------------------------------------

struct table_info {
    const char* name;
    const char* query;  // the method
    size_t row_size;
    const char* text;  // a column
    bool temporary;
};
inline constexpr table_info tables[] = {
    {"conn_server_log", "db_conn_server_log_query", sizeof(db_conn_server_log), "username", false},
    {"conn_client_log", "db_conn_client_log_query", sizeof(db_conn_client_log_data), "username",
     false},
    {"server_list", "db_server_list_query", sizeof(db_server_list_data), "username", true},
    {"device_info", "db_device_info_query", sizeof(db_device_info_data), "mac", true},
    {"privilege_user_block", "db_privilege_user_block_query", sizeof(db_privilege_user_block_data),
     "username", false},
};

// --- Requests ------------------------------------------------------------------------------------

struct answer {
    bool replied = false;
    std::string bytes{};
};

// Sends a request through the dispatcher. Expects that its buffer is given back, and that there is
// one reply at most.
answer ask(const std::string& method, std::string_view payload);

// A condition as a request.
template <class Condition>
std::string_view bytes_of(const Condition& condition) {
    return {reinterpret_cast<const char*>(&condition), sizeof condition};
}

// What the settings service replies; empty: it does not answer.
extern std::string settings;

// --- The file ------------------------------------------------------------------------------------

// The values of the first column, run on a connection of its own that no module knows. A failure
// breaks a promise.
std::vector<std::string> run(const std::string& statement);

}  // namespace store_world

#endif  // TESTS_FUZZ_STORE_WORLD_H
