// The conn_client_log table: connections that this device made as a VPN client. Persistent.
#include "ravod_db_conn_client_handler.h"

#include "table_store.h"

namespace {
using row = db_conn_client_log_data;

// The one list of columns. Its order is the order of CREATE, of INSERT, of SELECT *, and of
// order_by, where id is column 0 and comes first by itself.
constexpr column columns[] = {
    {"username", FIELD(row, username)}, {"vpn_type", FIELD(row, vpn_type)},
    {"uptime", FIELD(row, uptime)},     {"time", FIELD(row, time)},
    {"vpn_ip", FIELD(row, vpn_ip)},     {"tx_rate", FIELD(row, tx_rate)},
    {"rx_rate", FIELD(row, rx_rate)},   {"tx_total", FIELD(row, tx_total)},
    {"rx_total", FIELD(row, rx_total)}, {"country_code", FIELD(row, country_code)},
    {"wan_ip", FIELD(row, wan_ip)},     {"action", FIELD(row, action)},
};

constinit table<row> conn_client_log{{.name = "conn_client_log", .columns = columns}};
}  // namespace

int create_conn_client_log_db() { return conn_client_log.create(HERE); }
int insert_conn_client_log(db_conn_client_log_data* con_data) {
    return conn_client_log.insert(*con_data, HERE);
}
int delete_conn_client_log(db_delete_cond* cond) { return conn_client_log.remove(cond->id, HERE); }
int clean_conn_client_log() { return conn_client_log.clean(HERE); }
int select_conn_client_log(db_query_cond* cond, db_conn_client_log_query** result) {
    return conn_client_log.select(*cond, **result, HERE);
}
int optimize_client_log_db() { return conn_client_log.optimize(); }
int finish_conn_client_log_db() { return conn_client_log.finish(HERE); }
