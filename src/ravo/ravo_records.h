/* The fixed-size records that cross the daemon's socket, and the daemon's row types.
 *
 * 1. A record is written and read byte for byte in the host's byte order and alignment: daemon and
 *    callers run on one machine. Gaps between fields are sent as they lie; zero a record first.
 * 2. A text is a fixed array that holds a NUL-terminated string. The daemon never reads past an
 *    array: its last byte counts as NUL, whatever it holds.
 * 3. What vpn_type, action and outgoing mean is settled between the programs that write and read
 *    them; the daemon stores them as they are.
 *
 * Usable from C11 and C++. */
#ifndef RAVO_RECORDS_H
#define RAVO_RECORDS_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

/* Every text field but three has this size, its NUL included. */
#define RAVO_TEXT_SIZE 1025

/* The layout is the format, so each field's place is checked where the record stands. */
#ifdef __cplusplus
#define RAVO_FIELD_SIZE(record, field) sizeof(decltype(record::field))
#else
#define RAVO_FIELD_SIZE(record, field) sizeof(((record*)0)->field)
#endif
#define RAVO_FIELD_AT(record, field, offset, size)                                   \
    static_assert(offsetof(record, field) == (offset), #record "." #field " moved"); \
    static_assert(RAVO_FIELD_SIZE(record, field) == (size), #record "." #field       \
                                                                    " has another "  \
                                                                    "size")
#define RAVO_RECORD_SIZE(record, size) \
    static_assert(sizeof(record) == (size), #record " has another size")

#ifdef __cplusplus
extern "C" {
#endif

/* Which page of a table a query wants. The request of every query method. 2088 bytes. */
typedef struct db_query_cond {
    int64_t start;              /* rows to skip */
    int64_t count;              /* rows wanted; -1 or more than 100000 means 100000 */
    int64_t order_by;           /* index of the column to sort by, in the table's order; 0 is id */
    int64_t order_style;        /* 0 is ascending, any other value descending */
    char field[RAVO_TEXT_SIZE]; /* column to filter on; empty: no filter */
    char value[RAVO_TEXT_SIZE]; /* what the column must equal; empty: no filter */
} db_query_cond;
RAVO_RECORD_SIZE(db_query_cond, 2088);
RAVO_FIELD_AT(db_query_cond, start, 0, 8);
RAVO_FIELD_AT(db_query_cond, count, 8, 8);
RAVO_FIELD_AT(db_query_cond, order_by, 16, 8);
RAVO_FIELD_AT(db_query_cond, order_style, 24, 8);
RAVO_FIELD_AT(db_query_cond, field, 32, 1025);
RAVO_FIELD_AT(db_query_cond, value, 1057, 1025);

/* Which row a delete takes away. 8 bytes. */
typedef struct db_delete_cond {
    int64_t id;
} db_delete_cond;
RAVO_RECORD_SIZE(db_delete_cond, 8);
RAVO_FIELD_AT(db_delete_cond, id, 0, 8);

/* A connection that a client made to this device's VPN server. 5200 bytes. */
typedef struct db_conn_server_log {
    int64_t id; /* given by the table; ignored by an insert */
    char username[RAVO_TEXT_SIZE];
    int32_t vpn_type;
    uint64_t uptime; /* seconds */
    uint64_t time;   /* seconds since the epoch */
    char device_info[RAVO_TEXT_SIZE];
    char source_ip[RAVO_TEXT_SIZE];
    char vpn_ip[RAVO_TEXT_SIZE];
    int64_t tx_rate;  /* bytes per second */
    int64_t rx_rate;  /* bytes per second */
    int64_t tx_total; /* bytes */
    int64_t rx_total; /* bytes */
    char outgoing[RAVO_TEXT_SIZE];
    int32_t action;
} db_conn_server_log;
RAVO_RECORD_SIZE(db_conn_server_log, 5200);
RAVO_FIELD_AT(db_conn_server_log, id, 0, 8);
RAVO_FIELD_AT(db_conn_server_log, username, 8, 1025);
RAVO_FIELD_AT(db_conn_server_log, vpn_type, 1036, 4);
RAVO_FIELD_AT(db_conn_server_log, uptime, 1040, 8);
RAVO_FIELD_AT(db_conn_server_log, time, 1048, 8);
RAVO_FIELD_AT(db_conn_server_log, device_info, 1056, 1025);
RAVO_FIELD_AT(db_conn_server_log, source_ip, 2081, 1025);
RAVO_FIELD_AT(db_conn_server_log, vpn_ip, 3106, 1025);
RAVO_FIELD_AT(db_conn_server_log, tx_rate, 4136, 8);
RAVO_FIELD_AT(db_conn_server_log, rx_rate, 4144, 8);
RAVO_FIELD_AT(db_conn_server_log, tx_total, 4152, 8);
RAVO_FIELD_AT(db_conn_server_log, rx_total, 4160, 8);
RAVO_FIELD_AT(db_conn_server_log, outgoing, 4168, 1025);
RAVO_FIELD_AT(db_conn_server_log, action, 5196, 4);

/* A connection that this device made as a VPN client. 3152 bytes. */
typedef struct db_conn_client_log_data {
    int64_t id; /* given by the table; ignored by an insert */
    char username[RAVO_TEXT_SIZE];
    int32_t vpn_type;
    uint64_t uptime; /* seconds */
    uint64_t time;   /* seconds since the epoch */
    char vpn_ip[RAVO_TEXT_SIZE];
    int64_t tx_rate;      /* bytes per second */
    int64_t rx_rate;      /* bytes per second */
    int64_t tx_total;     /* bytes */
    int64_t rx_total;     /* bytes */
    char country_code[3]; /* two letters */
    char wan_ip[RAVO_TEXT_SIZE];
    int32_t action;
} db_conn_client_log_data;
RAVO_RECORD_SIZE(db_conn_client_log_data, 3152);
RAVO_FIELD_AT(db_conn_client_log_data, id, 0, 8);
RAVO_FIELD_AT(db_conn_client_log_data, username, 8, 1025);
RAVO_FIELD_AT(db_conn_client_log_data, vpn_type, 1036, 4);
RAVO_FIELD_AT(db_conn_client_log_data, uptime, 1040, 8);
RAVO_FIELD_AT(db_conn_client_log_data, time, 1048, 8);
RAVO_FIELD_AT(db_conn_client_log_data, vpn_ip, 1056, 1025);
RAVO_FIELD_AT(db_conn_client_log_data, tx_rate, 2088, 8);
RAVO_FIELD_AT(db_conn_client_log_data, rx_rate, 2096, 8);
RAVO_FIELD_AT(db_conn_client_log_data, tx_total, 2104, 8);
RAVO_FIELD_AT(db_conn_client_log_data, rx_total, 2112, 8);
RAVO_FIELD_AT(db_conn_client_log_data, country_code, 2120, 3);
RAVO_FIELD_AT(db_conn_client_log_data, wan_ip, 2123, 1025);
RAVO_FIELD_AT(db_conn_client_log_data, action, 3148, 4);

/* An event. It has no content: its one byte, which C needs for a struct, is sent as it lies. */
typedef struct db_event_data {
    char no_content;
} db_event_data;
RAVO_RECORD_SIZE(db_event_data, 1);

/* An entry registered with this device's VPN server. 4128 bytes. */
typedef struct db_server_list_data {
    int64_t id; /* given by the table; ignored by an insert */
    char uuid[RAVO_TEXT_SIZE];
    char username[RAVO_TEXT_SIZE];
    char sid[RAVO_TEXT_SIZE];
    char device_name[1024]; /* one byte shorter than the other texts */
    uint64_t expire_time;   /* seconds since the epoch */
    uint64_t time;          /* seconds since the epoch */
} db_server_list_data;
RAVO_RECORD_SIZE(db_server_list_data, 4128);
RAVO_FIELD_AT(db_server_list_data, id, 0, 8);
RAVO_FIELD_AT(db_server_list_data, uuid, 8, 1025);
RAVO_FIELD_AT(db_server_list_data, username, 1033, 1025);
RAVO_FIELD_AT(db_server_list_data, sid, 2058, 1025);
RAVO_FIELD_AT(db_server_list_data, device_name, 3083, 1024);
RAVO_FIELD_AT(db_server_list_data, expire_time, 4112, 8);
RAVO_FIELD_AT(db_server_list_data, time, 4120, 8);

/* A client device in the registry. 7192 bytes. */
typedef struct db_device_info_data {
    int64_t id; /* given by the table; ignored by an insert */
    char ip[RAVO_TEXT_SIZE];
    char mac[RAVO_TEXT_SIZE];    /* the registry's key */
    char vossid[RAVO_TEXT_SIZE]; /* the client's session identifier on the appliance */
    char user_id[RAVO_TEXT_SIZE];
    char dev_name[RAVO_TEXT_SIZE];
    char dev_uuid[RAVO_TEXT_SIZE]; /* given by the daemon */
    char nic[RAVO_TEXT_SIZE];      /* network interface name */
    uint64_t time;                 /* seconds since the epoch */
} db_device_info_data;
RAVO_RECORD_SIZE(db_device_info_data, 7192);
RAVO_FIELD_AT(db_device_info_data, id, 0, 8);
RAVO_FIELD_AT(db_device_info_data, ip, 8, 1025);
RAVO_FIELD_AT(db_device_info_data, mac, 1033, 1025);
RAVO_FIELD_AT(db_device_info_data, vossid, 2058, 1025);
RAVO_FIELD_AT(db_device_info_data, user_id, 3083, 1025);
RAVO_FIELD_AT(db_device_info_data, dev_name, 4108, 1025);
RAVO_FIELD_AT(db_device_info_data, dev_uuid, 5133, 1025);
RAVO_FIELD_AT(db_device_info_data, nic, 6158, 1025);
RAVO_FIELD_AT(db_device_info_data, time, 7184, 8);

/* The failed logins of one user name. 1048 bytes. */
typedef struct db_privilege_user_block_data {
    int64_t id; /* given by the table */
    char username[RAVO_TEXT_SIZE];
    int32_t limit;      /* failed logins counted so far */
    uint64_t timestamp; /* the last counted failure, seconds since the epoch */
} db_privilege_user_block_data;
RAVO_RECORD_SIZE(db_privilege_user_block_data, 1048);
RAVO_FIELD_AT(db_privilege_user_block_data, id, 0, 8);
RAVO_FIELD_AT(db_privilege_user_block_data, username, 8, 1025);
RAVO_FIELD_AT(db_privilege_user_block_data, limit, 1036, 4);
RAVO_FIELD_AT(db_privilege_user_block_data, timestamp, 1040, 8);

/* Query results: a header of 24 bytes, one type for each row type. In a reply the header is
 * followed directly by count rows; its data is then the sender's pointer and means nothing to the
 * receiver. */

typedef struct db_conn_server_log_query {
    uint64_t count; /* rows in data */
    uint64_t total; /* rows in the table, at most 100000 */
    db_conn_server_log* data;
} db_conn_server_log_query;
RAVO_RECORD_SIZE(db_conn_server_log_query, 24);
RAVO_FIELD_AT(db_conn_server_log_query, count, 0, 8);
RAVO_FIELD_AT(db_conn_server_log_query, total, 8, 8);
RAVO_FIELD_AT(db_conn_server_log_query, data, 16, 8);

typedef struct db_conn_client_log_query {
    uint64_t count; /* rows in data */
    uint64_t total; /* rows in the table, at most 100000 */
    db_conn_client_log_data* data;
} db_conn_client_log_query;
RAVO_RECORD_SIZE(db_conn_client_log_query, 24);
RAVO_FIELD_AT(db_conn_client_log_query, count, 0, 8);
RAVO_FIELD_AT(db_conn_client_log_query, total, 8, 8);
RAVO_FIELD_AT(db_conn_client_log_query, data, 16, 8);

typedef struct db_event_query {
    uint64_t count; /* rows in data */
    uint64_t total; /* rows in the table, at most 100000 */
    db_event_data* data;
} db_event_query;
RAVO_RECORD_SIZE(db_event_query, 24);
RAVO_FIELD_AT(db_event_query, count, 0, 8);
RAVO_FIELD_AT(db_event_query, total, 8, 8);
RAVO_FIELD_AT(db_event_query, data, 16, 8);

typedef struct db_server_list_query {
    uint64_t count; /* rows in data */
    uint64_t total; /* rows in the table, at most 100000 */
    db_server_list_data* data;
} db_server_list_query;
RAVO_RECORD_SIZE(db_server_list_query, 24);
RAVO_FIELD_AT(db_server_list_query, count, 0, 8);
RAVO_FIELD_AT(db_server_list_query, total, 8, 8);
RAVO_FIELD_AT(db_server_list_query, data, 16, 8);

typedef struct db_device_info_query {
    uint64_t count; /* rows in data */
    uint64_t total; /* rows in the table, at most 100000 */
    db_device_info_data* data;
} db_device_info_query;
RAVO_RECORD_SIZE(db_device_info_query, 24);
RAVO_FIELD_AT(db_device_info_query, count, 0, 8);
RAVO_FIELD_AT(db_device_info_query, total, 8, 8);
RAVO_FIELD_AT(db_device_info_query, data, 16, 8);

typedef struct db_privilege_user_block_query {
    uint64_t count; /* rows in data */
    uint64_t total; /* rows in the table, at most 100000 */
    db_privilege_user_block_data* data;
} db_privilege_user_block_query;
RAVO_RECORD_SIZE(db_privilege_user_block_query, 24);
RAVO_FIELD_AT(db_privilege_user_block_query, count, 0, 8);
RAVO_FIELD_AT(db_privilege_user_block_query, total, 8, 8);
RAVO_FIELD_AT(db_privilege_user_block_query, data, 16, 8);

/* The request for a fresh UUID. 4 bytes. */
typedef struct ravo_mobile_gen_uuid_data_set {
    int32_t type; /* not read by the daemon */
} ravo_mobile_gen_uuid_data_set;
RAVO_RECORD_SIZE(ravo_mobile_gen_uuid_data_set, 4);
RAVO_FIELD_AT(ravo_mobile_gen_uuid_data_set, type, 0, 4);

/* A device's UUID: 35 characters and a NUL, or an empty text. 36 bytes. */
typedef struct ravo_mobile_gen_uuid_data_get {
    char ravo_uuid[36];
} ravo_mobile_gen_uuid_data_get;
RAVO_RECORD_SIZE(ravo_mobile_gen_uuid_data_get, 36);
RAVO_FIELD_AT(ravo_mobile_gen_uuid_data_get, ravo_uuid, 0, 36);

#undef RAVO_FIELD_AT
#undef RAVO_FIELD_SIZE
#undef RAVO_RECORD_SIZE

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* RAVO_RECORDS_H */
