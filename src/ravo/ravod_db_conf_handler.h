// The configuration table: one row per configuration action. Persistent.
//
// The daemon carries the module and calls none of it. Deliberate: the texts of an insert stand in
// its statement between single quotes as they are, so a text with a quote breaks the statement or
// becomes SQL. Never bind the insert to a method or to any other text from outside.
#ifndef RAVOD_DB_CONF_HANDLER_H
#define RAVOD_DB_CONF_HANDLER_H

#include <cstdint>

// As for the other tables. Returns -1 when the database cannot be opened or the table cannot be
// created.
int create_conf_db();

// Stores an action and the current time (seconds since the epoch, 32 bits), and trims the table to
// its row cap. A null text is an empty one. Returns 0; a failure is only logged.
int insert_conf_data(const char* access_user, const char* profile_name, const char* server_address,
                     const char* username, int32_t action);

// Deletes the row with this id, as the other tables do. Returns 0.
int delete_conf_data(int32_t id);

// Closes the connection. Returns 0.
int finish_conf_db();

#endif  // RAVOD_DB_CONF_HANDLER_H
