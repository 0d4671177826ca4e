/* Client functions under other names, for a program that knows the store functions of the same
 * names too: no unit can include both headers. */
#ifndef TESTS_SUPPORT_CLIENT_CALLS_H
#define TESTS_SUPPORT_CLIENT_CALLS_H

#include "ravo_records.h"

#ifdef __cplusplus
extern "C" {
#endif

int call_add_server_list(db_server_list_data* data);
int call_delete_server_list(db_delete_cond* cond);
int call_clean_server_list(void);
int call_clean_conn_server_log(void);
int call_delete_conn_client_log(db_delete_cond* cond);

#ifdef __cplusplus
}
#endif

#endif /* TESTS_SUPPORT_CLIENT_CALLS_H */
