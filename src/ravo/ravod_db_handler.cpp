// The conn_server_log table: connections that clients made to this device's VPN server.
// Persistent.
#include "ravod_db_handler.h"

#include "table_store.h"

namespace {
using row = db_conn_server_log;

// The one list of columns. Its order is the order of CREATE, of INSERT, of SELECT *, and of
// order_by, where id is column 0 and comes first by itself.
constexpr column columns[] = {
    {"username", FIELD(row, username)},       {"vpn_type", FIELD(row, vpn_type)},
    {"uptime", FIELD(row, uptime)},           {"time", FIELD(row, time)},
    {"device_info", FIELD(row, device_info)}, {"source_ip", FIELD(row, source_ip)},
    {"vpn_ip", FIELD(row, vpn_ip)},           {"tx_rate", FIELD(row, tx_rate)},
    {"rx_rate", FIELD(row, rx_rate)},         {"tx_total", FIELD(row, tx_total)},
    {"rx_total", FIELD(row, rx_total)},       {"outgoing", FIELD(row, outgoing)},
    {"action", FIELD(row, action)},
};

constinit table<row> conn_server_log{{.name = "conn_server_log", .columns = columns}};
}  // namespace

int create_conn_server_log_db() { return conn_server_log.create(HERE); }
int insert_conn_server_log(db_conn_server_log* con_data) {
    return conn_server_log.insert(*con_data, HERE);
}
int delete_conn_server_log(db_delete_cond* cond) { return conn_server_log.remove(cond->id, HERE); }
int clean_conn_server_log() { return conn_server_log.clean(HERE); }
int select_conn_server_log(db_query_cond* cond, db_conn_server_log_query** result) {
    return conn_server_log.select(*cond, **result, HERE);
}
int optimize_server_log_db() { return conn_server_log.optimize(); }
int finish_conn_server_log_db() { return conn_server_log.finish(HERE); }
