// The client library and the daemon's store in one program: functions of the same names that have
// nothing to do with each other.
#include <gtest/gtest.h>

#include <cstdlib>

#include "ravod_db_conn_client_handler.h"
#include "ravod_db_handler.h"
#include "ravod_db_list_handler.h"
#include "support/client_calls.h"
#include "support/rows.h"

namespace {

uint64_t rows_in_server_list() {
    auto* result = static_cast<db_server_list_query*>(calloc(1, sizeof(db_server_list_query)));
    db_query_cond cond = page(0, 0);
    EXPECT_EQ(select_server_list(&cond, &result), 0);
    const uint64_t total = result->total;
    free(result->data);
    free(result);
    return total;
}

}  // namespace

TEST(namesakes, client_functions_call_a_daemon_and_store_functions_the_store) {
    ASSERT_EQ(create_server_list_db(), 0);
    auto row = row_with_text<db_server_list_data>("here");
    EXPECT_LT(call_add_server_list(&row), 0) << "no daemon runs here";
    EXPECT_EQ(rows_in_server_list(), 0U);
    EXPECT_EQ(insert_server_list(&row), 0);
    EXPECT_LT(call_clean_server_list(), 0);
    db_delete_cond first = {1};
    EXPECT_LT(call_delete_server_list(&first), 0);
    EXPECT_EQ(rows_in_server_list(), 1U) << "the client functions have not reached the store";
    EXPECT_EQ(clean_server_list(), 0);
    EXPECT_EQ(rows_in_server_list(), 0U);
    finish_server_list_db();
}

TEST(namesakes, the_logs_have_both_too) {
    EXPECT_LT(call_clean_conn_server_log(), 0);
    EXPECT_EQ(clean_conn_server_log(), 0);
    db_delete_cond first = {1};
    EXPECT_LT(call_delete_conn_client_log(&first), 0);
    EXPECT_EQ(delete_conn_client_log(&first), 0);
}
