// Memory that runs out in a program that calls the daemon: each allocation of each call of the
// client library fails once, in a process of its own. The daemon is a real one.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ostream>
#include <string>

#include "ravo_api.h"
#include "support/alloc_fault.h"
#include "support/bus.h"
#include "support/daemon.h"
#include "support/rows.h"

using alloc_fault::failing_allocation;

namespace {

char alice[] = "alice";

template <class Row>
int add(int (*call)(Row*)) {
    auto row = zeroed<Row>();
    return call(&row);
}

int remove(int (*call)(db_delete_cond*)) {
    db_delete_cond first = {1};
    return call(&first);
}

// A list that fails leaves the header as it was.
template <class Query>
int list(int (*call)(db_query_cond*, Query**)) {
    db_query_cond all = page(0, -1);
    Query result = {7, 8, nullptr};
    Query* pointer = &result;
    const int status = call(&all, &pointer);
    const bool is_untouched = result.count == 7 && result.total == 8 && result.data == nullptr;
    EXPECT_TRUE(is_untouched || result.data != nullptr);
    free(result.data);
    return status;
}

struct client_call {
    const char* name;
    int (*run)();
    bool is_silent = false;  // returns 0 whatever happened
};

const client_call calls[] = {
    {"add_conn_server_log", [] { return add(add_conn_server_log); }},
    {"list_conn_server_log", [] { return list(list_conn_server_log); }, true},
    {"delete_conn_server_log", [] { return remove(delete_conn_server_log); }},
    {"clean_conn_server_log", clean_conn_server_log},
    {"add_conn_client_log", [] { return add(add_conn_client_log); }},
    {"list_conn_client_log", [] { return list(list_conn_client_log); }, true},
    {"delete_conn_client_log", [] { return remove(delete_conn_client_log); }},
    {"clean_conn_client_log", clean_conn_client_log},
    {"add_event_data", [] { return add(add_event_data); }},
    {"list_event_data", [] { return list(list_event_data); }, true},
    {"add_server_list", [] { return add(add_server_list); }},
    {"list_server_list", [] { return list(list_server_list); }, true},
    {"delete_server_list", [] { return remove(delete_server_list); }},
    {"clean_server_list", clean_server_list},
    {"add_device_info",
     [] {
         auto device = zeroed<db_device_info_data>();
         ravo_mobile_gen_uuid_data_get uuid = {};
         return add_device_info(&device, &uuid);
     }},
    {"list_device_info", [] { return list(list_device_info); }, true},
    {"delete_device_info", [] { return remove(delete_device_info); }},
    {"clean_device_info", clean_device_info},
    {"add_privilege_user_block", [] { return add_privilege_user_block(alice); }},
    {"list_privilege_user_block", [] { return list(list_privilege_user_block); }, true},
    {"delete_privilege_user_block", [] { return delete_privilege_user_block(alice); }},
    {"check_privilege_user_block", [] { return check_privilege_user_block(alice); }},
    {"clean_privilege_user_block", clean_privilege_user_block},
    {"ravo_mobile_gen_ravo_uuid",
     [] {
         ravo_mobile_gen_uuid_data_set set = {};
         ravo_mobile_gen_uuid_data_get uuid = {};
         ravo_mobile_gen_uuid_data_get* pointer = &uuid;
         return ravo_mobile_gen_ravo_uuid(&set, &pointer);
     },
     true},
};

class client : public testing::Test {
  protected:
    client() {
        for (int n = 0; n < 3; ++n) {
            EXPECT_EQ(add(add_conn_server_log), 0);
            EXPECT_EQ(add(add_server_list), 0);
        }
    }
    const ravod_process daemon;
};

// The first allocation is the bus buffer's; a program that gets none is ended by an assertion.
TEST_F(client, is_ended_by_its_assertion_without_a_buffer) {
    for (const client_call& call : calls) {
        EXPECT_DEATH(
            {
                const failing_allocation fault(1);
                (void)call.run();
            },
            "io != NULL")
            << call.name;
    }
}

// Without the connection that a call may keep for the next one.
size_t descriptors_of_the_program() {
    return bus_test::open_descriptors() - bus_test::kept_connections();
}

TEST_F(client, tells_of_every_other_allocation_that_fails_and_keeps_nothing) {
    for (const client_call& call : calls) {
        EXPECT_EQ(call.run(), 0) << call.name;
        alloc_fault::exhaust(
            call.name,
            [&](size_t n) {
                const size_t blocks = alloc_fault::live_blocks();
                const size_t descriptors = descriptors_of_the_program();
                int status = 0;
                {
                    const failing_allocation fault(n + 1);
                    status = call.run();
                }
                const bool is_told = alloc_fault::was_met() && !call.is_silent;
                EXPECT_TRUE(status == 0 || (is_told && status == ZB_ERROR_MEMORY)) << status;
                EXPECT_EQ(alloc_fault::live_blocks(), blocks);
                EXPECT_EQ(descriptors_of_the_program(), descriptors);
                EXPECT_EQ(call.run(), 0) << "the next call";
            },
            [] {});
    }
}

}  // namespace
