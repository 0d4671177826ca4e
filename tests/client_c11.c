/* A C11 program on the client library alone: records a connection of each kind, an event and a
 * server, lists them, and deletes and cleans. Exits 0 when every answer was as expected; otherwise
 * the line that was not stands on standard error. */
#include "ravo_api.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define EXPECT(condition)                                                       \
    do {                                                                        \
        if (!(condition)) {                                                     \
            fprintf(stderr, "client_c11.c:%d: not %s\n", __LINE__, #condition); \
            return 1;                                                           \
        }                                                                       \
    } while (0)

static int use_server_log(db_query_cond* cond) {
    static db_conn_server_log row;
    strcpy(row.username, "anna");
    EXPECT(add_conn_server_log(&row) == 0);

    db_conn_server_log_query page = {0, 0, NULL};
    db_conn_server_log_query* header = &page;
    EXPECT(list_conn_server_log(cond, &header) == 0);
    EXPECT(page.count == 1 && page.total == 1 && page.data != NULL);
    EXPECT(strcmp(page.data[0].username, "anna") == 0);
    free(page.data);

    EXPECT(clean_conn_server_log() == 0);
    return 0;
}

static int use_client_log(db_query_cond* cond) {
    static db_conn_client_log_data row;
    strcpy(row.country_code, "CH");
    EXPECT(add_conn_client_log(&row) == 0);

    db_conn_client_log_query page = {0, 0, NULL};
    db_conn_client_log_query* header = &page;
    EXPECT(list_conn_client_log(cond, &header) == 0);
    EXPECT(page.count == 1 && strcmp(page.data[0].country_code, "CH") == 0);
    db_delete_cond which = {page.data[0].id};
    free(page.data);

    EXPECT(delete_conn_client_log(&which) == 0);
    EXPECT(list_conn_client_log(cond, &header) == 0);
    EXPECT(page.count == 0 && page.total == 0);
    free(page.data);
    return 0;
}

static int use_server_list_and_events(db_query_cond* cond) {
    static db_server_list_data row;
    strcpy(row.sid, "it's");
    EXPECT(add_server_list(&row) == 0);

    db_server_list_query page = {0, 0, NULL};
    db_server_list_query* header = &page;
    EXPECT(list_server_list(cond, &header) == 0);
    EXPECT(page.count == 1 && strcmp(page.data[0].sid, "it's") == 0);
    free(page.data);

    db_event_data event = {0};
    EXPECT(add_event_data(&event) == 0);
    return 0;
}

int main(void) {
    static db_query_cond cond;
    cond.count = -1;
    return use_server_log(&cond) || use_client_log(&cond) || use_server_list_and_events(&cond);
}
