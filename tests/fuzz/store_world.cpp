// The store as the daemon has it, for fuzz targets.
#include "store_world.h"

#include <cstring>
#include <filesystem>
#include <memory>

#include "fuzz_target.h"
#include "nc_msg_db.h"
#include "ravod_db_conn_client_handler.h"
#include "ravod_db_device_info_handler.h"
#include "ravod_db_handler.h"
#include "ravod_db_list_handler.h"
#include "ravod_db_privilege_user_block_handler.h"
#include "ravod_handler.h"
#include "standin/standin.h"

// In the place of the sender: nobody is told.
extern "C" void __wrap__ZN4ravo5nclog11notify_sendEPKNS_13nc_msg_structEz(
    const ravo::nc_msg_struct*, ...);
extern "C" void __wrap__ZN4ravo5nclog11notify_sendEPKNS_13nc_msg_structEz(
    const ravo::nc_msg_struct*, ...) {}

namespace store_world {

std::string settings;

namespace {

constexpr char log_path[] = "/var/log/network/RAVO.log";

struct module {
    table_state& state;
    table_state first;
};
std::vector<module>& modules() {
    static std::vector<module> all;
    return all;
}

// Absent in a machine's own root, whose files are not to be touched.
void expect_throw_away_root() {
    static const bool is_one = std::filesystem::is_directory("/small");
    fuzz::expect(is_one, "a target that touches files runs in tools/in_root");
}

int answer_settings(zb_io* io) {
    if (settings.empty()) return ZB_ERROR_UNREACHABLE;
    return zb_io_write(io, settings.data(), settings.size());
}

}  // namespace

module_registration::module_registration(table_state& state) {
    modules().push_back({state, state});
}

void forget() {
    expect_throw_away_root();
    fuzz::expect(modules().size() == std::size(tables), "every table's module is here");
    for (module& each : modules()) {
        sqlite3_close(each.state.__db__);
        each.state.__db__ = nullptr;
        memcpy(&each.state, &each.first, sizeof each.first);
    }
    std::filesystem::remove(database_path);
    std::filesystem::remove(log_path);
}

void begin() {
    forget();
    for (const auto create :
         {create_conn_server_log_db, create_conn_client_log_db, create_server_list_db,
          create_device_info_db, create_privilege_user_block_db}) {
        fuzz::expect(create() == 0, "the tables are created");
    }
}

answer ask(const std::string& method, std::string_view payload) {
    *standin() = {};
    standin()->answer = answer_settings;
    zb_io* io = zb_io_create();
    fuzz::expect(zb_io_write(io, payload.data(), payload.size()) == 0, "a request");
    ravod_method_handler(method.c_str(), io, -1);
    const standin_bus& bus = *standin();
    fuzz::expect(bus.replies.size() <= 1, "one reply at most");
    if (!ravod_method_list.contains(method)) {
        fuzz::expect(bus.replies.empty(), "an unknown method is not answered");
        zb_io_free(io);
    }
    fuzz::expect(bus.live_buffers == 0, "the buffer is given back, once");
    return {!bus.replies.empty(), bus.replies.empty() ? "" : bus.replies[0]};
}

std::vector<std::string> run(const std::string& statement) {
    sqlite3* opened = nullptr;
    const int rc = sqlite3_open_v2(database_path, &opened, SQLITE_OPEN_READWRITE, nullptr);
    const std::unique_ptr<sqlite3, int (*)(sqlite3*)> db(opened, sqlite3_close);
    std::vector<std::string> values;
    const auto keep = [](void* kept, int count, char** texts, char**) {
        const char* first = count > 0 && texts[0] != nullptr ? texts[0] : "(null)";
        static_cast<std::vector<std::string>*>(kept)->emplace_back(first);
        return 0;
    };
    const bool is_done = rc == SQLITE_OK && sqlite3_exec(db.get(), statement.c_str(), keep, &values,
                                                         nullptr) == SQLITE_OK;
    if (!is_done) (void)fprintf(stderr, "%s: %s\n", statement.c_str(), sqlite3_errmsg(db.get()));
    fuzz::expect(is_done, "the file can be read and written");
    return values;
}

}  // namespace store_world
