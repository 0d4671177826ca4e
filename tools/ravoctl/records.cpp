// The kinds of records that ravoctl lists and adds.
#include "records.h"

namespace {

using enum shown;
using enum meaning;

using connection = db_conn_server_log;
constexpr field connection_fields[] = {
    {FIELD(connection, id), always, given_by_table},
    {FIELD(connection, username), always},
    {FIELD(connection, vpn_type)},
    {FIELD(connection, uptime), always},
    {FIELD(connection, time), always, time},
    {FIELD(connection, device_info)},
    {FIELD(connection, source_ip), always},
    {FIELD(connection, vpn_ip), always},
    {FIELD(connection, tx_rate)},
    {FIELD(connection, rx_rate)},
    {FIELD(connection, tx_total)},
    {FIELD(connection, rx_total)},
    {FIELD(connection, outgoing)},
    {FIELD(connection, action), always},
};

using outgoing = db_conn_client_log_data;
constexpr field outgoing_fields[] = {
    {FIELD(outgoing, id), always, given_by_table},
    {FIELD(outgoing, username), always},
    {FIELD(outgoing, vpn_type)},
    {FIELD(outgoing, uptime), always},
    {FIELD(outgoing, time), always, time},
    {FIELD(outgoing, vpn_ip), always},
    {FIELD(outgoing, tx_rate)},
    {FIELD(outgoing, rx_rate)},
    {FIELD(outgoing, tx_total)},
    {FIELD(outgoing, rx_total)},
    {FIELD(outgoing, country_code), always},
    {FIELD(outgoing, wan_ip), always},
    {FIELD(outgoing, action), always},
};

using server = db_server_list_data;
constexpr field server_fields[] = {
    {FIELD(server, id), always, given_by_table}, {FIELD(server, uuid)},
    {FIELD(server, username), always},           {FIELD(server, sid)},
    {FIELD(server, device_name), always},        {FIELD(server, expire_time), always, time},
    {FIELD(server, time), always, time},
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

template <class Record>
Record record_type_of(int (*add)(Record*));

template <auto add>
int add_record(char* record) {
    return add(reinterpret_cast<decltype(record_type_of(add))*>(record));
}

constexpr record_kind kinds[] = {
    {"sessions", "connections made to this device's VPN server", "connection", sizeof(connection),
     connection_fields, read_page<list_conn_server_log>, add_record<add_conn_server_log>},
    {"outgoing", "connections that this device made as a VPN client", "connection",
     sizeof(outgoing), outgoing_fields, read_page<list_conn_client_log>,
     add_record<add_conn_client_log>},
    {"servers", "entries of this device's VPN server, kept while the daemon runs", "entry",
     sizeof(server), server_fields, read_page<list_server_list>, add_record<add_server_list>},
};

}  // namespace

std::span<const record_kind> record_kinds() { return kinds; }
