// Small verbs on records for tests: a row of each table filled, written as bytes and compared.
#ifndef TESTS_SUPPORT_ROWS_H
#define TESTS_SUPPORT_ROWS_H

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "ravo_records.h"

// A record whose every byte is 0, the gaps between its fields included.
template <class Record>
Record zeroed() {
    Record record;
    memset(&record, 0, sizeof record);
    return record;
}

template <class Record>
std::string bytes_of(const Record& record) {
    return {reinterpret_cast<const char*>(&record), sizeof record};
}

// Cuts the text to the array and leaves the rest of the array as it is.
template <size_t size>
void set_text(char (&array)[size], std::string_view text) {
    const size_t length = std::min(text.size(), size - 1);
    memcpy(array, text.data(), length);
    array[length] = '\0';
}

// Calls visit(array) for each text field of a row.
template <class Visit>
void each_text(db_conn_server_log& row, Visit visit) {
    visit(row.username), visit(row.device_info), visit(row.source_ip), visit(row.vpn_ip);
    visit(row.outgoing);
}
template <class Visit>
void each_text(db_conn_client_log_data& row, Visit visit) {
    visit(row.username), visit(row.vpn_ip), visit(row.country_code), visit(row.wan_ip);
}
template <class Visit>
void each_text(db_server_list_data& row, Visit visit) {
    visit(row.uuid), visit(row.username), visit(row.sid), visit(row.device_name);
}

// A row with this text, cut where an array is shorter, in all its text fields.
template <class Row>
Row row_with_text(std::string_view text) {
    Row row = zeroed<Row>();
    each_text(row, [text](auto& array) { set_text(array, text); });
    return row;
}

// A row with a number of its own in every number field.
inline void set_numbers(db_conn_server_log& row, int32_t n) {
    row.vpn_type = n, row.uptime = static_cast<uint64_t>(n) + 1, row.time = 1700000000;
    row.tx_rate = -n - 2, row.rx_rate = n + 3, row.tx_total = int64_t{n} << 33;
    row.rx_total = -(int64_t{n} << 34), row.action = -n;
}
inline void set_numbers(db_conn_client_log_data& row, int32_t n) {
    row.vpn_type = n, row.uptime = static_cast<uint64_t>(n) + 1, row.time = 1700000000;
    row.tx_rate = -n - 2, row.rx_rate = n + 3, row.tx_total = int64_t{n} << 33;
    row.rx_total = -(int64_t{n} << 34), row.action = -n;
}
inline void set_numbers(db_server_list_data& row, int32_t n) {
    row.expire_time = static_cast<uint64_t>(n) + 1, row.time = 1700000000;
}

inline db_query_cond page(int64_t start, int64_t count) {
    db_query_cond cond = zeroed<db_query_cond>();
    cond.start = start;
    cond.count = count;
    return cond;
}

inline db_query_cond filtered(std::string_view field, std::string_view value) {
    db_query_cond cond = page(0, -1);
    set_text(cond.field, field);
    set_text(cond.value, value);
    return cond;
}

#endif  // TESTS_SUPPORT_ROWS_H
