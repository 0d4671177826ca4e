// The server_list table: entries registered with this device's VPN server, each with an expiry.
// TEMPORARY: the rows live as long as the connection, so they are gone at every start and after any
// failed statement, together with the table.
//
// Each operation returns 0 and tells a failure to the log only, where nothing else is said.
#ifndef RAVOD_DB_LIST_HANDLER_H
#define RAVOD_DB_LIST_HANDLER_H

#include "ravo_records.h"

// Builds the table's statements, opens the database and creates the table if it is missing.
// Returns -1 when the database cannot be opened or the table cannot be created.
int create_server_list_db();

// Stores a copy of the record under a new id; the record's own id is ignored. At 102000 rows the
// 2000 oldest go.
int insert_server_list(db_server_list_data* data);

// Deletes the row with the condition's id. Which rows go besides depends on the deletes and cleans
// before it, see delete_row in table_store.h.
int delete_server_list(db_delete_cond* cond);

// Deletes every row, as long as no delete came before it, see clean_table in table_store.h.
int clean_server_list();

// Appends the page that the condition asks for to **result, which comes zero-filled, and sets its
// total. The caller releases result->data with free(). Returns -1 when order_by is no column.
int select_server_list(db_query_cond* cond, db_server_list_query** result);

// Lets SQLite tidy up and give back memory; nothing when the connection is closed.
int optimize_server_list_db();

// Closes the connection. The next create builds the statements anew.
int finish_server_list_db();

#endif  // RAVOD_DB_LIST_HANDLER_H
