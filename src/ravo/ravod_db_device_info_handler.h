// The device_info table: client devices by MAC address, with the UUID that each keeps. TEMPORARY:
// the rows live as long as the connection, so they are gone at every start and after any failed
// statement, together with the table.
//
// Each operation returns 0 and tells a failure to the log only, where nothing else is said.
#ifndef RAVOD_DB_DEVICE_INFO_HANDLER_H
#define RAVOD_DB_DEVICE_INFO_HANDLER_H

#include "ravo_records.h"

// Builds the table's statements, opens the database and creates the table and its unique index on
// mac. Returns -1 when the database cannot be opened or the table cannot be created. An index that
// cannot be created closes the connection, and so loses the table, while 0 is returned.
int create_device_info_db();

// Stores a copy of the record under a new id, in place of the row with the same mac, if any; such a
// row hands its dev_uuid on to the new one. At 102000 rows the 2000 oldest go.
int insert_device_info(db_device_info_data* db_con);

// Deletes the row with the condition's id. Which rows go besides depends on the deletes and cleans
// before it, see delete_row in table_store.h.
int delete_device_info(db_delete_cond* cond);

// Deletes every row, as long as no delete came before it, see clean_table in table_store.h.
int clean_device_info();

// Appends the page that the condition asks for to **data, which comes zero-filled, and sets its
// total. The caller releases data->data with free(). Returns -1 when order_by is no column.
int select_device_info(db_query_cond* cond, db_device_info_query** data);

// Lets SQLite tidy up and give back memory; nothing when the connection is closed.
int optimize_device_info_db();

// Closes the connection. The next create builds the statements anew.
int finish_device_info_db();

#endif  // RAVOD_DB_DEVICE_INFO_HANDLER_H
