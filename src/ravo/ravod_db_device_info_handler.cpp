// The device_info table: client devices by MAC address, with the UUID that each keeps. TEMPORARY.
#include "ravod_db_device_info_handler.h"

#include "table_store.h"

namespace {
using row = db_device_info_data;

// The one list of columns. Its order is the order of CREATE, of INSERT, of SELECT *, and of
// order_by, where id is column 0 and comes first by itself.
constexpr column columns[] = {
    {"ip", FIELD(row, ip)},
    {"mac", FIELD(row, mac)},
    {"vossid", FIELD(row, vossid)},
    {"user_id", FIELD(row, user_id)},
    {"dev_name", FIELD(row, dev_name)},
    {"dev_uuid", FIELD(row, dev_uuid)},
    {"nic", FIELD(row, nic)},
    {"time", FIELD(row, time)},
};

constinit table<row> device_info{{.name = "device_info", .temporary = true, .columns = columns}};

// Unlike the other tables' INSERT, a known mac keeps its dev_uuid: the expression is evaluated
// before the conflict on the unique index removes the old row.
sql_text stable_uuid_insert(const row& device) {
    constexpr int most = RAVO_TEXT_SIZE - 1;
    return sql(
        "INSERT OR REPLACE INTO device_info (ip, mac, vossid, user_id, dev_name, dev_uuid, nic, "
        "time) VALUES ('%.*q', '%.*q', '%.*q', '%.*q', '%.*q', CASE WHEN EXISTS (SELECT * FROM "
        "device_info) AND (SELECT dev_uuid FROM device_info WHERE mac = '%.*q') IS NOT NULL THEN "
        "(SELECT dev_uuid FROM device_info WHERE mac = '%.*q') ELSE '%.*q' END, '%.*q', %lu);",
        most, device.ip, most, device.mac, most, device.vossid, most, device.user_id, most,
        device.dev_name, most, device.mac, most, device.mac, most, device.dev_uuid, most,
        device.nic, device.time);
}
}  // namespace

int create_device_info_db() {
    const call_site at = HERE;
    if (device_info.create(at) != 0) return -1;
    (void)run(device_info.state,
              sql("CREATE UNIQUE INDEX idx_%s_%s ON %s (%s);", "device_info", "mac", "device_info",
                  "mac"),
              at);
    return 0;
}
int insert_device_info(db_device_info_data* db_con) {
    return insert_row(device_info.state, stable_uuid_insert(*db_con), HERE);
}
int delete_device_info(db_delete_cond* cond) { return device_info.remove(cond->id, HERE); }
int clean_device_info() { return device_info.clean(HERE); }
int select_device_info(db_query_cond* cond, db_device_info_query** data) {
    return device_info.select(*cond, **data, HERE);
}
int optimize_device_info_db() { return device_info.optimize(); }
int finish_device_info_db() { return device_info.finish(HERE); }
