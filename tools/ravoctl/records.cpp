// The kinds of records that ravoctl lists and adds.
#include "records.h"

#include <algorithm>
#include <iterator>

#include "blocks.h"

namespace {

using enum shown;
using enum meaning;
using enum origin;

using connection = db_conn_server_log;
constexpr field connection_fields[] = {
    {"id", FIELD(connection, id), always, plain, given_by_table},
    {"username", FIELD(connection, username), always},
    {"vpn_type", FIELD(connection, vpn_type)},
    {"uptime", FIELD(connection, uptime), always},
    {"time", FIELD(connection, time), always, time},
    {"device_info", FIELD(connection, device_info)},
    {"source_ip", FIELD(connection, source_ip), always},
    {"vpn_ip", FIELD(connection, vpn_ip), always},
    {"tx_rate", FIELD(connection, tx_rate)},
    {"rx_rate", FIELD(connection, rx_rate)},
    {"tx_total", FIELD(connection, tx_total)},
    {"rx_total", FIELD(connection, rx_total)},
    {"outgoing", FIELD(connection, outgoing)},
    {"action", FIELD(connection, action), always},
};

using outgoing = db_conn_client_log_data;
constexpr field outgoing_fields[] = {
    {"id", FIELD(outgoing, id), always, plain, given_by_table},
    {"username", FIELD(outgoing, username), always},
    {"vpn_type", FIELD(outgoing, vpn_type)},
    {"uptime", FIELD(outgoing, uptime), always},
    {"time", FIELD(outgoing, time), always, time},
    {"vpn_ip", FIELD(outgoing, vpn_ip), always},
    {"tx_rate", FIELD(outgoing, tx_rate)},
    {"rx_rate", FIELD(outgoing, rx_rate)},
    {"tx_total", FIELD(outgoing, tx_total)},
    {"rx_total", FIELD(outgoing, rx_total)},
    {"country_code", FIELD(outgoing, country_code), always},
    {"wan_ip", FIELD(outgoing, wan_ip), always},
    {"action", FIELD(outgoing, action), always},
};

using server = db_server_list_data;
constexpr field server_fields[] = {
    {"id", FIELD(server, id), always, plain, given_by_table},
    {"uuid", FIELD(server, uuid)},
    {"username", FIELD(server, username), always},
    {"sid", FIELD(server, sid)},
    {"device_name", FIELD(server, device_name), always},
    {"expire_time", FIELD(server, expire_time), always, time},
    {"time", FIELD(server, time), always, time},
};

using device = db_device_info_data;
constexpr field device_fields[] = {
    {"id", FIELD(device, id), always, plain, given_by_table},
    {"ip", FIELD(device, ip)},
    {"mac", FIELD(device, mac), always},
    {"vossid", FIELD(device, vossid)},
    {"user_id", FIELD(device, user_id), always},
    {"dev_name", FIELD(device, dev_name), always},
    {"dev_uuid", FIELD(device, dev_uuid), always, plain, given_by_table},
    {"nic", FIELD(device, nic)},
    {"time", FIELD(device, time), always, time},
};

using block = db_privilege_user_block_data;
static_assert(offsetof(block_row, stored) == 0);
constexpr field block_fields[] = {
    {"id", FIELD(block, id), in_wide_table, plain, given_by_table},
    {"username", FIELD(block, username), always},
    {"limit_count", FIELD(block, limit), always},
    {"timestamp", FIELD(block, timestamp), always, time},
    {"state", FIELD(block_row, state), always, plain, computed},
    {"until", FIELD(block_row, until), always, time, computed},
    {"left", FIELD(block_row, left), always, duration, computed},
};

// Whether the fields stand in the order of the record and leave out none: a sort column is sent as
// its position, so a missing field would sort by another one.
constexpr bool are_complete(std::span<const field> fields, size_t record_size) {
    constexpr size_t largest_gap = 7;  // what alignment can leave free
    size_t end = 0;
    for (const field& f : fields) {
        if (f.offset < end || f.offset - end > largest_gap) return false;
        end = f.offset + f.size;
    }
    return record_size - end <= largest_gap;
}
static_assert(are_complete(connection_fields, sizeof(connection)));
static_assert(are_complete(outgoing_fields, sizeof(outgoing)));
static_assert(are_complete(server_fields, sizeof(server)));
static_assert(are_complete(device_fields, sizeof(device)));
static_assert(are_complete(block_fields, sizeof(block_row)));

template <class Query>
Query query_type_of(int (*list)(db_query_cond*, Query**));

// A list call returns 0 whatever happened, so its header is given a count that no reply has.
template <auto list>
page read_page(db_query_cond cond) {
    constexpr uint64_t untouched = UINT64_MAX;
    decltype(query_type_of(list)) header = {};
    header.count = untouched;
    auto* header_address = &header;
    (void)list(&cond, &header_address);
    return {header.count != untouched, header.count, header.total,
            std::unique_ptr<char, free_deleter>(reinterpret_cast<char*>(header.data))};
}

page read_blocks(db_query_cond cond) {
    return with_states(read_page<list_privilege_user_block>(cond));
}

template <class Record>
Record record_type_of(int (*add)(Record*));

template <auto add>
added add_record(char* record) {
    return {add(reinterpret_cast<decltype(record_type_of(add))*>(record)), std::nullopt};
}

// The answer is the UUID that the device has from now on.
added register_device(char* record) {
    ravo_mobile_gen_uuid_data_get answer = {};
    const int result = add_device_info(reinterpret_cast<device*>(record), &answer);
    return {result, answer.ravo_uuid};
}

constexpr record_kind kinds[] = {
    {"sessions",
     "connections made to this device's VPN server",
     "connection",
     sizeof(connection),
     connection_fields,
     read_page<list_conn_server_log>,
     {"add", add_record<add_conn_server_log>},
     {delete_conn_server_log, clean_conn_server_log}},
    {"outgoing",
     "connections that this device made as a VPN client",
     "connection",
     sizeof(outgoing),
     outgoing_fields,
     read_page<list_conn_client_log>,
     {"add", add_record<add_conn_client_log>},
     {delete_conn_client_log, clean_conn_client_log}},
    {"servers",
     "entries of this device's VPN server, kept while the daemon runs",
     "entry",
     sizeof(server),
     server_fields,
     read_page<list_server_list>,
     {"add", add_record<add_server_list>},
     {delete_server_list, clean_server_list, true}},
    // The daemon answers a registration without a mac with somebody else's UUID.
    {"devices",
     "registered devices, kept while the daemon runs",
     "device",
     sizeof(device),
     device_fields,
     read_page<list_device_info>,
     {"register", register_device, "mac"},
     {delete_device_info, clean_device_info, true}},
    {blocks_command, "failed logins by user, and who is blocked", "counter", sizeof(block_row),
     block_fields, read_blocks},
};

}  // namespace

std::span<const record_kind> record_kinds() { return kinds; }

const record_kind& kind_of(std::string_view command) {
    return *std::find_if(std::begin(kinds), std::end(kinds),
                         [command](const record_kind& kind) { return command == kind.command; });
}
