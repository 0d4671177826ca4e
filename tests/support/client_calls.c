/* Client functions under other names, for a program that knows the store functions of the same
 * names too: no unit can include both headers. */
#include "support/client_calls.h"

#include "ravo_api.h"

int call_add_server_list(db_server_list_data* data) { return add_server_list(data); }
int call_delete_server_list(db_delete_cond* cond) { return delete_server_list(cond); }
int call_clean_server_list(void) { return clean_server_list(); }
int call_clean_conn_server_log(void) { return clean_conn_server_log(); }
int call_delete_conn_client_log(db_delete_cond* cond) { return delete_conn_client_log(cond); }
