// The login-attempt limiter: failed logins per user name in the table privilege_user_block, blocks,
// and their notifications. Persistent.
//
// 1. User names are NUL-terminated texts, compared byte for byte. Of a longer name the first 1024
//    bytes count, in every operation alike.
// 2. The limit, the block time and the switch are read afresh by every operation, from
//    "/etc/config/vpn_block.conf" through the settings service "vpncaas". Each
//    reading waits for that service at most 5 seconds without progress; a check that finds the
//    limiter off reads twice.
// 3. SQL failures are told to the log only.
#ifndef RAVOD_DB_PRIVILEGE_USER_BLOCK_HANDLER_H
#define RAVOD_DB_PRIVILEGE_USER_BLOCK_HANDLER_H

#include "ravo_records.h"

// Builds the table's statements, opens the database and creates the table if it is missing.
// Returns -1 when the database cannot be opened or the table cannot be created.
int create_privilege_user_block_db();

// Counts one failed login. Sends notification "0020" when the count becomes equal to the limit. At
// 102000 rows the 2000 oldest go. Returns 0.
int insert_privilege_user_block(char* username);

// Decides whether a user is blocked. Returns 1 when the user is blocked now, 0 when not, -1 when
// the settings cannot be read. Deletes a block that has run out and sends "0021" for it. While the
// limiter is off, every count is forgotten.
int check_privilege_user_block(char* username);

// Forgets one user's count. Sends "0021" when the count was equal to the limit. Returns 0.
int delete_privilege_user_block(char* username);

// Forgets every user's count. Sends "0021" for each that was equal to the limit. Returns 0.
int clean_privilege_user_block();

// Appends the page that the condition asks for to **data, which comes zero-filled, and sets its
// total. The caller releases data->data with free(). Returns -1 when order_by is no column.
int select_privilege_user_block(db_query_cond* cond, db_privilege_user_block_query** data);

// Lets SQLite tidy up and give back memory; nothing when the connection is closed.
int optimize_privilege_user_block_db();

// Closes the connection. The next create builds the statements anew.
int finish_privilege_user_block_db();

#endif  // RAVOD_DB_PRIVILEGE_USER_BLOCK_HANDLER_H
