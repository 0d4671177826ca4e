// The server_list table: entries registered with this device's VPN server, each with an expiry.
// TEMPORARY: the rows live as long as the connection, so they are gone at every start and after any
// failed statement, together with the table.
#include "ravod_db_list_handler.h"

#include "table_store.h"

namespace {
using row = db_server_list_data;

// The one list of columns. Its order is the order of CREATE, of INSERT, of SELECT *, and of
// order_by, where id is column 0 and comes first by itself.
constexpr column columns[] = {
    {"uuid", FIELD(row, uuid)},
    {"username", FIELD(row, username)},
    {"sid", FIELD(row, sid)},
    {"device_name", FIELD(row, device_name)},
    {"expire_time", FIELD(row, expire_time)},
    {"time", FIELD(row, time)},
};

constinit table<row> server_list{{.name = "server_list", .temporary = true, .columns = columns}};
}  // namespace

int create_server_list_db() { return server_list.create(HERE); }
int insert_server_list(db_server_list_data* data) { return server_list.insert(*data, HERE); }
int delete_server_list(db_delete_cond* cond) { return server_list.remove(cond->id, HERE); }
int clean_server_list() { return server_list.clean(HERE); }
int select_server_list(db_query_cond* cond, db_server_list_query** result) {
    return server_list.select(*cond, **result, HERE);
}
int optimize_server_list_db() { return server_list.optimize(); }
int finish_server_list_db() { return server_list.finish(HERE); }
