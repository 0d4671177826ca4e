// The conn_client_log table: connections that this device made as a VPN client. Persistent.
//
// Each operation returns 0 and tells a failure to the log only, where nothing else is said.
#ifndef RAVOD_DB_CONN_CLIENT_HANDLER_H
#define RAVOD_DB_CONN_CLIENT_HANDLER_H

#include "ravo_records.h"

// Builds the table's statements, opens the database and creates the table if it is missing.
// Returns -1 when the database cannot be opened or the table cannot be created.
int create_conn_client_log_db();

// Stores a copy of the record under a new id; the record's own id is ignored. At 102000 rows the
// 2000 oldest go.
int insert_conn_client_log(db_conn_client_log_data* con_data);

// Deletes the row with the condition's id. Which rows go besides depends on the deletes and cleans
// before it, see delete_row in table_store.h.
int delete_conn_client_log(db_delete_cond* cond);

// Deletes every row, as long as no delete came before it, see clean_table in table_store.h.
int clean_conn_client_log();

// Appends the page that the condition asks for to **result, which comes zero-filled, and sets its
// total. The caller releases result->data with free(). Returns -1 when order_by is no column.
int select_conn_client_log(db_query_cond* cond, db_conn_client_log_query** result);

// Lets SQLite tidy up and give back memory; nothing when the connection is closed.
int optimize_client_log_db();

// Closes the connection. The next create builds the statements anew.
int finish_conn_client_log_db();

#endif  // RAVOD_DB_CONN_CLIENT_HANDLER_H
