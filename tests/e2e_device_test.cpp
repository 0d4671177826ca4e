// The device registry end to end: the client library, the bus and the running daemon.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ravo_api.h"
#include "support/daemon.h"
#include "support/files.h"

namespace {

using texts = std::vector<std::string>;

// Registers a device and returns the UUID that it gets.
std::string enter(const std::string& mac, const std::string& name = "") {
    db_device_info_data data;
    memset(&data, 0, sizeof data);
    memcpy(data.mac, mac.data(), mac.size());
    memcpy(data.dev_name, name.data(), name.size());
    memset(data.dev_uuid, 'f', sizeof data.dev_uuid);  // forged
    ravo_mobile_gen_uuid_data_get uuid = {};
    EXPECT_EQ(add_device_info(&data, &uuid), 0);
    EXPECT_EQ(uuid.ravo_uuid[35], '\0');
    return uuid.ravo_uuid;
}

// Each device as "ID MAC NAME UUID".
texts devices() {
    db_query_cond cond = {};
    cond.count = -1;
    db_device_info_query result = {};
    db_device_info_query* pointer = &result;
    EXPECT_EQ(list_device_info(&cond, &pointer), 0);
    texts list;
    for (uint64_t n = 0; n < result.count; ++n) {
        const db_device_info_data& d = result.data[n];
        list.push_back(std::to_string(d.id) + " " + d.mac + " " + d.dev_name + " " + d.dev_uuid);
    }
    free(result.data);
    return list;
}

std::string fresh_uuid() {
    ravo_mobile_gen_uuid_data_set set = {};
    ravo_mobile_gen_uuid_data_get get = {};
    ravo_mobile_gen_uuid_data_get* pointer = &get;
    EXPECT_EQ(ravo_mobile_gen_ravo_uuid(&set, &pointer), 0);
    return get.ravo_uuid;
}

}  // namespace

TEST(e2e_device, keeps_its_uuid_until_it_is_deleted) {
    const ravod_process ravod;
    const std::string first = enter("00:11:22:33:44:55", "old");
    EXPECT_EQ(first.size(), 35U);
    EXPECT_EQ(first.find_first_not_of("0123456789abcdef"), 32U);
    EXPECT_EQ(first.substr(32), "%R?");
    const std::string other = enter("66:77:88:99:aa:bb", "other");
    EXPECT_NE(other, first);
    EXPECT_EQ(enter("00:11:22:33:44:55", "new"), first);
    EXPECT_EQ(devices(),
              (texts{"2 66:77:88:99:aa:bb other " + other, "3 00:11:22:33:44:55 new " + first}));
    db_delete_cond cond = {3};
    EXPECT_EQ(delete_device_info(&cond), 0);
    EXPECT_NE(enter("00:11:22:33:44:55"), first);
    EXPECT_EQ(read_file(log_path), "");
}

TEST(e2e_device, registry_is_empty_after_a_clean_and_after_a_restart) {
    {
        const ravod_process ravod;
        enter("aa");
        EXPECT_EQ(clean_device_info(), 0);
        EXPECT_EQ(devices(), texts{});
        enter("bb");
        EXPECT_EQ(devices().size(), 1U);
    }
    const ravod_process ravod;
    EXPECT_EQ(devices(), texts{});
}

TEST(e2e_device, bare_uuids_differ_and_register_nothing) {
    const ravod_process ravod;
    const std::string one = fresh_uuid();
    const std::string two = fresh_uuid();
    EXPECT_EQ(one.size(), 35U);
    EXPECT_EQ(two.substr(32), "%R?");
    EXPECT_NE(one, two);
    EXPECT_EQ(devices(), texts{});
}

TEST(e2e_device, without_a_daemon_nothing_is_changed) {
    db_device_info_data data = {};
    ravo_mobile_gen_uuid_data_get uuid = {};
    EXPECT_LT(add_device_info(&data, &uuid), 0);
    EXPECT_EQ(fresh_uuid(), "");
    EXPECT_EQ(devices(), texts{});
    EXPECT_EQ(read_file(log_path), "");
}
