// The configuration table: one row per configuration action. Persistent.
#include "ravod_db_conf_handler.h"

#include <ctime>

#include "table_store.h"

namespace {

// The values of one insert. No record of this table crosses the bus.
struct conf_row {
    const char* access_user;
    const char* profile_name;
    const char* server_address;
    const char* username;
    int32_t action;
    int32_t date;  // seconds since the epoch; deliberate: 32 bits
};

constexpr column columns[] = {
    {"access_user", FIELD(conf_row, access_user)},
    {"profile_name", FIELD(conf_row, profile_name)},
    {"server_address", FIELD(conf_row, server_address)},
    {"username", FIELD(conf_row, username)},
    {"action", FIELD(conf_row, action)},
    {"date", FIELD(conf_row, date), {"DATETIME", "%d"}},
};

constinit table_state configuration{.name = "configuration", .columns = columns};

}  // namespace

int create_conf_db() { return create_table(configuration, HERE); }

int insert_conf_data(const char* access_user, const char* profile_name, const char* server_address,
                     const char* username, int32_t action) {
    const conf_row row = {access_user, profile_name, server_address,
                          username,    action,       static_cast<int32_t>(time(nullptr))};
    return insert_row(configuration, insert_statement(configuration, &row), HERE);
}

int delete_conf_data(int32_t id) { return delete_row(configuration, id, HERE); }

int finish_conf_db() { return finish_table(configuration, HERE); }
