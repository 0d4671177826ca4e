// The handlers of the table methods: a request's record in, one store operation, a reply out.
//
// Each returns 0 when it has replied, and io is the dispatcher's; -1 when it has released io and
// replied nothing. A request shorter than its record is refused that way; of a longer one the first
// bytes count.
#ifndef RAVOD_DB_H
#define RAVOD_DB_H

#include "zbservice.h"

int db_conn_insert_handler(zb_io* io);
int db_conn_server_log_query_handler(zb_io* io);
int db_conn_server_clean_handler(zb_io* io);
int db_conn_server_delete_handler(zb_io* io);

int db_conn_client_log_insert_handler(zb_io* io);
int db_conn_client_log_query_handler(zb_io* io);
int db_conn_client_clean_handler(zb_io* io);
int db_conn_client_delete_handler(zb_io* io);

int db_event_insert_handler(zb_io* io);
int db_event_query_handler(zb_io* io);

int db_server_list_insert_handler(zb_io* io);
int db_server_list_query_handler(zb_io* io);
int db_server_list_delete_handler(zb_io* io);
int db_server_list_clean_handler(zb_io* io);

// Registers a device: its record in, the 36-byte UUID that its mac has in the registry out.
int db_device_info_insert_handler(zb_io* io);
int db_device_info_query_handler(zb_io* io);
int db_device_info_delete_handler(zb_io* io);
int db_device_info_clean_handler(zb_io* io);

// Their requests, but the query's, are user names of any length.
int db_privilege_user_block_insert_handler(zb_io* io);
int db_privilege_user_block_query_handler(zb_io* io);
int db_privilege_user_block_delete_handler(zb_io* io);
int db_privilege_user_block_clean_handler(zb_io* io);
// Always replies, with the decimal text of the result.
int db_privilege_user_block_check_handler(zb_io* io);

#endif  // RAVOD_DB_H
