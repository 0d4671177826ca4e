/* Client functions of ravod: record VPN connections and server list entries, register devices,
 * count failed logins, and read all of it back.
 *
 * What holds for every function:
 *
 * 1. One call is one request to the daemon at "@/var/run/ravod.sock". It blocks until the daemon
 *    has answered, at most 5 seconds without progress.
 * 2. Any thread may call; the library keeps no state between calls. The records passed in stay the
 *    caller's. They are sent whole, so zero a record before filling it.
 * 3. add_, delete_ and clean_ functions return 0 when the daemon has answered, otherwise the bus's
 *    negative result: no daemon, no right to call it, no answer in time (zb_strerror() of
 *    zbservice.h names it). The daemon answers also when its database refuses a statement: such a
 *    failure stands in "/var/log/network/RAVO.log" only.
 * 4. list_ functions always return 0. Their last argument points to the address of the caller's
 *    header. On success count rows stand in its data, a block that the caller releases with
 *    free(), and total is the number of rows of the whole table, at most 100000. When the call
 *    fails the header is left as it was: zero it first, and data == NULL afterwards means that
 *    nothing was read, since an empty page comes with a block of no rows that is to be freed as
 *    well.
 * 5. When there is no memory for the request buffer the process is aborted by an assertion.
 *
 * Usable from C11 and C++. Link with libravo_client (pkg-config ravo_client). */
#ifndef RAVO_API_H
#define RAVO_API_H

#include "ravo_records.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* --- Connections made to this device's VPN server ------------------------------------------- */

/* Records one connection. The table gives the id; the oldest 2000 rows go at 102000. */
int add_conn_server_log(db_conn_server_log* con_data);

/* Reads one page of the 100000 newest rows. */
int list_conn_server_log(db_query_cond* cond, db_conn_server_log_query** connect_query);

/* Deletes the row with the condition's id. */
int delete_conn_server_log(db_delete_cond* cond);

/* Deletes every row. */
int clean_conn_server_log(void);

/* --- Connections that this device made as a VPN client -------------------------------------- */

/* Records one connection. The table gives the id; the oldest 2000 rows go at 102000. */
int add_conn_client_log(db_conn_client_log_data* con_data);

/* Reads one page of the 100000 newest rows. */
int list_conn_client_log(db_query_cond* cond, db_conn_client_log_query** connect_query);

/* Deletes the row with the condition's id. */
int delete_conn_client_log(db_delete_cond* cond);

/* Deletes every row. */
int clean_conn_client_log(void);

/* --- Events -------------------------------------------------------------------------------- */

/* Hands an event to the daemon, which accepts and does not store it. */
int add_event_data(db_event_data* data);

/* Reads events. The daemon keeps none and leaves the request unanswered, so the header stays. */
int list_event_data(db_query_cond* cond, db_event_query** query);

/* --- The server list: entries of this device's VPN server, kept while the daemon runs -------- */

/* Adds an entry. Its time and expire_time are stored as they come. */
int add_server_list(db_server_list_data* data);

/* Reads one page of the 100000 newest entries. */
int list_server_list(db_query_cond* cond, db_server_list_query** query);

/* Deletes the entry with the condition's id. */
int delete_server_list(db_delete_cond* cond);

/* Deletes every entry. */
int clean_server_list(void);

/* --- The device registry, kept while the daemon runs ----------------------------------------- */

/* Registers a device and reads the UUID that its mac has in the registry: a fresh one for a new
 * mac, the one it had for a known mac, whose row is replaced. data->dev_uuid is not used.
 *
 * get_data  on success an identifier of 35 characters, or an empty text when the daemon could not
 *           store the device; untouched when the call fails.
 *
 * An empty mac is answered with the UUID of the oldest device in the registry. */
int add_device_info(db_device_info_data* data, ravo_mobile_gen_uuid_data_get* get_data);

/* Reads one page of the 100000 newest devices. */
int list_device_info(db_query_cond* cond, db_device_info_query** query);

/* Deletes the device with the condition's id. */
int delete_device_info(db_delete_cond* cond);

/* Deletes every device. */
int clean_device_info(void);

/* Reads a fresh UUID of 35 characters, of which the daemon keeps no record.
 *
 * set_datas  sent and not read by the daemon.
 * get_datas  *get_datas is the caller's record: filled on success, with 36 zero bytes when the
 * daemon has no source of UUIDs; left as it was when the call fails, so zero it first.
 *
 * Returns 0 always. */
int ravo_mobile_gen_ravo_uuid(ravo_mobile_gen_uuid_data_set* set_datas,
                              ravo_mobile_gen_uuid_data_get** get_datas);

/* --- The login-attempt limiter ---------------------------------------------------------------- */

/* The limit, the block time and the switch are settings of the service "vpncaas"; the daemon asks
 * for them at each of these calls and may need up to 5 seconds for that. User names are compared
 * byte for byte, by their first 1024 bytes. */

/* Counts one failed login of a user. */
int add_privilege_user_block(char* username);

/* Reads one page of the 100000 newest counters. A call that fails is logged. */
int list_privilege_user_block(db_query_cond* cond, db_privilege_user_block_query** block_query);

/* Forgets a user's count, and so lifts a block. An unknown name is no failure. */
int delete_privilege_user_block(char* username);

/* Asks whether a user is blocked now. Returns 1 when blocked; 0 when not, and also when the
 * settings cannot be read; the bus's negative result, which is logged, when the call fails. */
int check_privilege_user_block(char* username);

/* Forgets every count, and so lifts every block. */
int clean_privilege_user_block(void);

#pragma GCC visibility pop
#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* RAVO_API_H */
