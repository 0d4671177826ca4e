// Device records for tests, and what the registry holds.
#ifndef TESTS_SUPPORT_DEVICES_H
#define TESTS_SUPPORT_DEVICES_H

#include <algorithm>
#include <cstring>
#include <string>

#include "ravo_records.h"
#include "support/sql_trace.h"

// Fills a whole array: a text of its size leaves no room for the NUL.
template <size_t size>
void fill_text(char (&array)[size], const std::string& text) {
    memset(array, 0, size);
    memcpy(array, text.data(), std::min(text.size(), size));
}

// A device whose fields differ from each other and from those of a device with another mark.
inline db_device_info_data device(const std::string& mac, const std::string& mark = "1") {
    db_device_info_data data;
    memset(&data, 0, sizeof data);
    data.id = 4711;
    fill_text(data.ip, "ip " + mark);
    fill_text(data.mac, mac);
    fill_text(data.vossid, "vossid " + mark);
    fill_text(data.user_id, "user_id " + mark);
    fill_text(data.dev_name, "dev_name " + mark);
    fill_text(data.dev_uuid, "dev_uuid " + mark);
    fill_text(data.nic, "nic " + mark);
    data.time = 1700000000 + mark.size();
    return data;
}

inline std::string bytes_of_device(const db_device_info_data& data) {
    return {reinterpret_cast<const char*>(&data), sizeof data};
}

inline std::string quoted(const std::string& text) {
    std::string sql = "'";
    for (const char c : text) sql += c == '\'' ? std::string("''") : std::string(1, c);
    return sql + "'";
}

// What the store's last connection answers, past the trace.
inline std::string in_registry(const std::string& query) {
    return sql_trace::value(sql_trace::opened.back(), query);
}

inline std::string uuid_of(const std::string& mac) {
    return in_registry("SELECT dev_uuid FROM device_info WHERE mac = " + quoted(mac));
}

inline std::string row_count() { return in_registry("SELECT count(*) FROM device_info"); }

// Adds rows in bulk, past the store: mac and dev_uuid are "m1", "m2", ...
inline void seed_registry(int64_t rows) {
    sql_trace::run(
        sql_trace::opened.back(),
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " +
            std::to_string(rows) +
            ") INSERT INTO device_info (mac, dev_uuid) SELECT 'm' || i, 'm' || i FROM n");
}

// Texts that are also something else: SQL, formats, terminal control.
inline const std::string hostile_texts[] = {
    "aa'bb",
    "'",
    "''''",
    std::string(1024, '\''),
    "'); DROP TABLE device_info; --",
    "x' OR 'a' = 'a",
    "mac",
    "NULL",
    "%s%n%d%z%q%Q",
    "100%",
    "%%",
    "\\",
    "\\'",
    "\"; SELECT \"",
    "/* -- */",
    "a\nb\r\tc\x1b[31m\x7f",
    "\xff\xfe\x80",
    "\xe6\x97\xa5\xe6\x9c\xac",
    "ELSE '%q' END",
    std::string(1024, 'z'),
};

#endif  // TESTS_SUPPORT_DEVICES_H
