/* Records one connection through the client library and lists the newest ones.
 *
 *   cc record_and_list.c -o record_and_list $(pkg-config --cflags --libs ravo_client)
 *   ./record_and_list alice */
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <ravo_api.h>

/* Returns 0, or the bus's negative result when the daemon did not answer. */
static int record_connection(const char* username) {
    static db_conn_server_log connection; /* static, so that it is zero all over */
    if (strlen(username) >= sizeof connection.username) {
        fprintf(stderr, "the user name is too long\n");
        return -1;
    }
    strcpy(connection.username, username);
    strcpy(connection.source_ip, "203.0.113.20");
    strcpy(connection.vpn_ip, "10.88.0.20");
    connection.time = (uint64_t)time(NULL);
    connection.action = 1;
    return add_conn_server_log(&connection);
}

/* Prints the newest connections. Returns 0, or -1 when nothing could be read. */
static int list_newest(int64_t count) {
    db_query_cond newest = {.count = count, .order_style = 1}; /* by id, descending */
    db_conn_server_log_query result = {0};
    db_conn_server_log_query* result_address = &result;

    /* The call returns 0 always. An empty page comes with a block, too, so without one nothing was
     * read. */
    list_conn_server_log(&newest, &result_address);
    if (result.data == NULL) return -1;

    for (uint64_t i = 0; i < result.count; ++i) {
        const db_conn_server_log* row = &result.data[i];
        printf("%" PRId64 " %s from %s at %" PRIu64 "\n", row->id, row->username, row->source_ip,
               row->time);
    }
    printf("%" PRIu64 " of %" PRIu64 " connections\n", result.count, result.total);
    free(result.data);
    return 0;
}

int main(int argc, char** argv) {
    const char* username = argc > 1 ? argv[1] : "alice";
    const int result = record_connection(username);
    if (result != 0) {
        fprintf(stderr, "could not record the connection: result %d; does ravod run?\n", result);
        return 1;
    }
    if (list_newest(5) != 0) {
        fprintf(stderr, "could not list the connections\n");
        return 1;
    }
    return 0;
}
