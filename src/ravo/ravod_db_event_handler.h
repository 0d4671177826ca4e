// The event_log table: a place for events that stores nothing. Persistent, with the id column only.
//
// The daemon never creates the table, so the module stays unbuilt and every query is refused.
#ifndef RAVOD_DB_EVENT_HANDLER_H
#define RAVOD_DB_EVENT_HANDLER_H

#include "ravo_records.h"

// As for the other tables. Returns -1 when the database cannot be opened or the table cannot be
// created.
int create_event_db();

// Accepts the event and does nothing. Returns 0.
int insert_event_data(db_event_data* data);

// Deletes the row with this id, as the other tables do. Returns 0.
int delete_event_data(int id);

// Appends one byte for each row that the condition asks for to **result, which comes zero-filled;
// its total stays. count and start are used as they stand, a filter is ignored. The caller releases
// result->data with free(). Returns -1 when order_by is no column (always, while the table is not
// created); otherwise 0, also when the statement failed, which is logged.
int select_event_data(db_query_cond* cond, db_event_query** result);

// Closes the connection. Returns 0.
int finish_event_db();

#endif  // RAVOD_DB_EVENT_HANDLER_H
