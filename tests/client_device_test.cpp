// The client functions of devices and of the login-attempt limiter on a bus that records each call
// and answers as it is told: this program's functions stand in front of the bus library's.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "ravo_api.h"
#include "support/files.h"
#include "support/log_lines.h"
#include "zbservice.h"

// A block of exactly the payload and its zero byte, so that a sanitizer sees what is read past it.
struct zb_io {
    char* data;
    size_t length;
};

namespace {

struct bus_call {
    std::string path;
    std::string method;
    std::string request;
    int timeout_s;
    int fd;
};

std::vector<bus_call> calls;
int live_buffers = 0;
bool no_buffers = false;
bool no_writes = false;
int call_result = 0;
std::string call_reply;

bool resize(zb_io* io, size_t length) {
    auto* block = static_cast<char*>(calloc(1, length + 1));
    memcpy(block, io->data, std::min(io->length, length));
    free(io->data);
    *io = {block, length};
    return true;
}

}  // namespace

zb_io* zb_io_create(void) {
    if (no_buffers) return nullptr;
    ++live_buffers;
    return new zb_io{static_cast<char*>(calloc(1, 1)), 0};
}
int zb_io_write(zb_io* io, const void* data, size_t length) {
    if (no_writes) return -1;
    const size_t end = io->length;
    resize(io, end + length);
    memcpy(io->data + end, data, length);
    return 0;
}
void* zb_io_read(zb_io* io, size_t* length) {
    if (length != nullptr) *length = io->length;
    return io->data;
}
void zb_io_free(zb_io* io) {
    --live_buffers;
    free(io->data);
    delete io;
}
int zb_call(const char* path, const char* method, zb_io* io, int timeout_s, int fd) {
    calls.push_back({path, method, std::string(io->data, io->length), timeout_s, fd});
    if (call_result != 0) return call_result;
    resize(io, call_reply.size());
    memcpy(io->data, call_reply.data(), call_reply.size());
    return 0;
}

namespace {

using texts = std::vector<std::string>;

// Results of a bus, those that could be taken for an answer among them.
constexpr int failures[] = {-1, -3, -8, 1, 7, INT32_MAX, INT32_MIN};

template <class Record>
std::string bytes_of(const Record& record) {
    return {reinterpret_cast<const char*>(&record), sizeof record};
}

// Bytes of which no two neighbours are alike.
template <class Record>
Record pattern() {
    char bytes[sizeof(Record)];
    for (size_t n = 0; n < sizeof bytes; ++n) bytes[n] = static_cast<char>(n * 7 + n / 256);
    Record record;
    memcpy(&record, bytes, sizeof record);
    return record;
}

void answer_with(int result, const std::string& reply = {}) {
    call_result = result;
    call_reply = reply;
    calls.clear();
}

class client_device : public testing::Test {
  protected:
    ~client_device() override { EXPECT_EQ(live_buffers, 0) << "each call releases its buffer"; }

    static void expect_call(const std::string& method, const std::string& request) {
        ASSERT_EQ(calls.size(), 1U);
        EXPECT_EQ(calls[0].path, "@/var/run/ravod.sock");
        EXPECT_EQ(calls[0].method, method);
        EXPECT_TRUE(calls[0].request == request) << calls[0].request.size() << " bytes";
        EXPECT_EQ(calls[0].timeout_s, 5);
        EXPECT_EQ(calls[0].fd, -1);
        calls.clear();
    }
};

using client_block = client_device;
using client_uuid = client_device;
using client_list = client_device;
using client_device_death = client_device;

int call_with_name(int (*function)(char*), const std::string& name) {
    std::vector<char> text(name.begin(), name.end());
    text.push_back('\0');
    const std::vector<char> before = text;
    const int result = function(text.data());
    EXPECT_EQ(text, before);
    return result;
}

struct name_function {
    const char* method;
    int (*function)(char* username);
};
constexpr name_function name_functions[] = {
    {"db_privilege_user_block_insert", add_privilege_user_block},
    {"db_privilege_user_block_del", delete_privilege_user_block},
    {"db_privilege_user_block_check", check_privilege_user_block},
};

// A caller's uuid record full of a mark, with room behind it that is nobody's.
struct uuid_room {
    ravo_mobile_gen_uuid_data_get record;
    char guard[64];
};
uuid_room marked_room() {
    uuid_room room;
    memset(&room, 'z', sizeof room);
    return room;
}
std::string text_of(const uuid_room& room) { return bytes_of(room); }

// What the room holds when these bytes have been written to its start.
std::string marked_behind(const std::string& bytes) {
    return bytes + std::string(sizeof(uuid_room) - bytes.size(), 'z');
}

constexpr char uuid[] = "3f2a9c4e1b7d4e0f8a6b5c4d3e2f1a0b%R?";

int check(const std::string& reply) {
    answer_with(0, reply);
    char name[] = "alice";
    return check_privilege_user_block(name);
}

std::vector<expected_line> failed_call(const std::string& function, int ret) {
    return {{"ERROR", "ravo_api_db.cpp", function,
             "zbsh " + function + ", ret=" + std::to_string(ret) + "\n"}};
}

// --- The two lists ---

struct list_header {
    uint64_t count;
    uint64_t total;
    void* data;
};

template <class Query>
int with_header(int (*function)(db_query_cond*, Query**), db_query_cond* cond,
                list_header& header) {
    Query query;
    memcpy(&query, &header, sizeof query);
    Query* pointer = &query;
    const int result = function(cond, &pointer);
    EXPECT_EQ(pointer, &query) << "the caller's pointer stays";
    memcpy(&header, &query, sizeof query);
    return result;
}

struct list_function {
    const char* method;
    size_t row;
    int (*call)(db_query_cond* cond, list_header& header);
};
const list_function lists[] = {
    {"db_device_info_query", 7192,
     [](db_query_cond* c, list_header& h) { return with_header(list_device_info, c, h); }},
    {"db_privilege_user_block_query", 1048,
     [](db_query_cond* c, list_header& h) { return with_header(list_privilege_user_block, c, h); }},
};

std::string reply_header(uint64_t count, uint64_t total) {
    return bytes_of(list_header{count, total, reinterpret_cast<void*>(0x123456789abcd0)});
}

// Expects 0 and a header that is as it was.
void expect_nothing_read(const list_function& list) {
    db_query_cond cond = {};
    char mark = 0;
    list_header header = {11, 22, &mark};
    EXPECT_EQ(list.call(&cond, header), 0);
    EXPECT_EQ(header.count, 11U);
    EXPECT_EQ(header.total, 22U);
    EXPECT_EQ(header.data, &mark);
}

}  // namespace

// --- Devices ------------------------------------------------------------------------------------

TEST_F(client_device, add_sends_the_record_whole_and_returns_the_uuid) {
    answer_with(0, std::string(uuid) + std::string(1, '\0'));
    auto data = pattern<db_device_info_data>();
    const std::string before = bytes_of(data);
    uuid_room room = marked_room();
    EXPECT_EQ(add_device_info(&data, &room.record), 0);
    expect_call("db_device_info_insert", before);
    EXPECT_EQ(bytes_of(data), before);
    EXPECT_EQ(text_of(room), marked_behind(std::string(uuid) + std::string(1, '\0')));
}

TEST_F(client_device, add_copies_the_reply_as_a_text) {
    const std::string nul(1, '\0');
    struct {
        std::string reply;
        std::string written;
    } const cases[] = {
        {"", nul},
        {std::string(36, '\0'), nul},
        {"abc", "abc" + nul},
        {"abc" + nul + "defghijklmnopqrstuvwxyz0123456789", "abc" + nul},
        {std::string(35, 'x'), std::string(35, 'x') + nul},
        {std::string(36, 'x'), std::string(35, 'x') + nul},
        {std::string(37, 'x'), std::string(35, 'x') + nul},
        {std::string(100000, 'x'), std::string(35, 'x') + nul},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reply.size());
        answer_with(0, c.reply);
        db_device_info_data data = {};
        uuid_room room = marked_room();
        EXPECT_EQ(add_device_info(&data, &room.record), 0);
        EXPECT_EQ(text_of(room), marked_behind(c.written));
    }
}

TEST_F(client_device, add_that_fails_passes_the_result_on_and_leaves_the_record) {
    for (const int result : failures) {
        answer_with(result, uuid);
        db_device_info_data data = {};
        uuid_room room = marked_room();
        EXPECT_EQ(add_device_info(&data, &room.record), result);
        EXPECT_EQ(text_of(room), marked_behind(""));
    }
    EXPECT_EQ(read_file(log_path), "");
}

TEST_F(client_device, delete_and_clean_send_their_request_and_pass_the_result_on) {
    for (const int result : {0, -1, -3, -8, 1, 7, INT32_MAX, INT32_MIN}) {
        answer_with(result, "ignored");
        auto cond = pattern<db_delete_cond>();
        EXPECT_EQ(delete_device_info(&cond), result);
        expect_call("db_device_info_del", bytes_of(pattern<db_delete_cond>()));
        EXPECT_EQ(clean_device_info(), result);
        expect_call("db_device_info_clean", "");
    }
    EXPECT_EQ(read_file(log_path), "");
}

TEST_F(client_device, request_that_cannot_be_written_is_a_failed_call) {
    no_writes = true;
    db_device_info_data data = {};
    db_delete_cond cond = {};
    uuid_room room = marked_room();
    EXPECT_LT(add_device_info(&data, &room.record), 0);
    EXPECT_LT(delete_device_info(&cond), 0);
    for (const name_function& f : name_functions) {
        EXPECT_LT(call_with_name(f.function, "alice"), 0) << f.method;
    }
    EXPECT_EQ(text_of(room), marked_behind(""));
    EXPECT_EQ(calls.size(), 0U) << "half a request is not sent";
}

// --- UUIDs --------------------------------------------------------------------------------------

TEST_F(client_uuid, all_36_bytes_of_the_reply_are_copied) {
    for (const std::string& reply :
         {std::string(uuid) + std::string(1, '\0'), std::string(36, '\0'), std::string(36, 'x'),
          std::string(36, 'y') + "and more"}) {
        answer_with(0, reply);
        auto set = pattern<ravo_mobile_gen_uuid_data_set>();
        uuid_room room = marked_room();
        ravo_mobile_gen_uuid_data_get* pointer = &room.record;
        EXPECT_EQ(ravo_mobile_gen_ravo_uuid(&set, &pointer), 0);
        EXPECT_EQ(pointer, &room.record);
        EXPECT_EQ(text_of(room), marked_behind(reply.substr(0, 36)));
        EXPECT_EQ(calls[0].request.size(), 4U);
        expect_call("ravo_mobile_gen_ravo_uuid", bytes_of(set));
    }
}

TEST_F(client_uuid, failed_call_returns_0_and_leaves_the_record) {
    for (const int result : failures) {
        answer_with(result, std::string(36, 'x'));
        ravo_mobile_gen_uuid_data_set set = {};
        uuid_room room = marked_room();
        ravo_mobile_gen_uuid_data_get* pointer = &room.record;
        EXPECT_EQ(ravo_mobile_gen_ravo_uuid(&set, &pointer), 0);
        EXPECT_EQ(text_of(room), marked_behind(""));
    }
    EXPECT_EQ(read_file(log_path), "");
}

TEST_F(client_uuid, reply_that_is_too_short_is_not_read_past_its_end) {
    for (const size_t length : {0U, 1U, 35U}) {
        answer_with(0, std::string(length, 'x'));
        ravo_mobile_gen_uuid_data_set set = {};
        uuid_room room = marked_room();
        ravo_mobile_gen_uuid_data_get* pointer = &room.record;
        EXPECT_EQ(ravo_mobile_gen_ravo_uuid(&set, &pointer), 0);
        EXPECT_EQ(text_of(room), marked_behind("")) << "and leaves the record";
    }
}

// --- The limiter --------------------------------------------------------------------------------

TEST_F(client_block, names_are_sent_without_their_nul) {
    const texts names = {"alice",
                         "",
                         "a b",
                         "'; --",
                         "%s%n",
                         "\xff\xfe",
                         "\n\x1b",
                         "1024",
                         std::string(1024, 'x'),
                         std::string(5000, 'y')};
    for (const name_function& f : name_functions) {
        for (const std::string& name : names) {
            answer_with(0, "0");
            EXPECT_EQ(call_with_name(f.function, name), 0);
            expect_call(f.method, name);
        }
    }
}

TEST_F(client_block, empty_name_sends_an_empty_payload) {
    char name[] = "";
    EXPECT_EQ(add_privilege_user_block(name), 0);
    expect_call("db_privilege_user_block_insert", "");
}

TEST_F(client_block, add_delete_and_clean_pass_the_result_on_and_do_not_log) {
    for (const int result : {0, -1, -3, -8, 1, 7, INT32_MAX, INT32_MIN}) {
        answer_with(result, "1");
        EXPECT_EQ(call_with_name(add_privilege_user_block, "alice"), result);
        EXPECT_EQ(call_with_name(delete_privilege_user_block, "alice"), result);
        calls.clear();
        EXPECT_EQ(clean_privilege_user_block(), result);
        expect_call("db_privilege_user_block_clean", "");
    }
    EXPECT_EQ(read_file(log_path), "");
}

TEST_F(client_block, check_is_1_for_the_reply_1_only) {
    EXPECT_EQ(check("1"), 1);
    EXPECT_EQ(check(std::string("1\0and more", 10)), 1) << "the reply is a text";
    for (const char* reply : {"0", "-1", "", "11", "10", "01", "1 ", " 1", "+1", "1\n", "2", "-11",
                              "true", "one", "\x01"}) {
        EXPECT_EQ(check(reply), 0) << reply;
    }
    EXPECT_EQ(check(std::string("\0001", 2)), 0);
    EXPECT_EQ(check(std::string(100000, '1')), 0);
    EXPECT_EQ(read_file(log_path), "");
}

TEST_F(client_block, check_that_fails_is_logged_and_passes_the_result_on) {
    for (const int result : failures) {
        forget_log();
        answer_with(result, "1");
        EXPECT_EQ(call_with_name(check_privilege_user_block, "alice"), result);
        expect_log(failed_call("check_privilege_user_block", result));
    }
}

TEST_F(client_block, list_that_fails_is_logged_and_returns_0) {
    for (const int result : failures) {
        forget_log();
        answer_with(result, reply_header(1, 1) + std::string(1048, 'x'));
        expect_nothing_read(lists[1]);
        expect_log(failed_call("list_privilege_user_block", result));
    }
}

// --- Lists --------------------------------------------------------------------------------------

TEST_F(client_list, condition_is_sent_whole) {
    for (const list_function& l : lists) {
        answer_with(0, reply_header(0, 0));
        auto cond = pattern<db_query_cond>();
        list_header header = {};
        EXPECT_EQ(l.call(&cond, header), 0);
        expect_call(l.method, bytes_of(pattern<db_query_cond>()));
        free(header.data);
    }
}

TEST_F(client_list, count_total_and_rows_are_unpacked) {
    for (const list_function& l : lists) {
        SCOPED_TRACE(l.method);
        std::string rows;
        for (size_t n = 0; n < 3 * l.row; ++n) rows += static_cast<char>(n * 7 + n / 256);
        answer_with(0, reply_header(3, 99) + rows);
        db_query_cond cond = {};
        list_header header = {11, 22, nullptr};
        EXPECT_EQ(l.call(&cond, header), 0);
        EXPECT_EQ(header.count, 3U);
        EXPECT_EQ(header.total, 99U);
        ASSERT_NE(header.data, nullptr);
        EXPECT_TRUE(std::string(static_cast<const char*>(header.data), rows.size()) == rows);
        free(header.data);
    }
    EXPECT_EQ(read_file(log_path), "");
}

TEST_F(client_list, empty_page_comes_with_a_block_to_free) {
    for (const list_function& l : lists) {
        answer_with(0, reply_header(0, 5));
        db_query_cond cond = {};
        list_header header = {11, 22, nullptr};
        EXPECT_EQ(l.call(&cond, header), 0);
        EXPECT_EQ(header.count, 0U);
        EXPECT_EQ(header.total, 5U);
        EXPECT_NE(header.data, nullptr);
        free(header.data);
    }
}

TEST_F(client_list, failed_list_of_devices_returns_0_and_is_not_logged) {
    for (const int result : failures) {
        answer_with(result, reply_header(1, 1) + std::string(7192, 'x'));
        expect_nothing_read(lists[0]);
    }
    EXPECT_EQ(read_file(log_path), "");
}

TEST_F(client_list, reply_that_is_shorter_than_it_says_leaves_the_header) {
    for (const list_function& l : lists) {
        SCOPED_TRACE(l.method);
        for (const size_t length : {size_t{0}, size_t{23}, 24 + l.row - 1, 24 + 3 * l.row - 1}) {
            answer_with(0, (reply_header(3, 3) + std::string(3 * l.row, 'x')).substr(0, length));
            expect_nothing_read(l);
        }
        for (const uint64_t count : {UINT64_MAX, UINT64_MAX / l.row + 1, uint64_t{1} << 61}) {
            answer_with(0, reply_header(count, 3) + std::string(3 * l.row, 'x'));
            expect_nothing_read(l);
        }
    }
}

// --- The library --------------------------------------------------------------------------------

TEST_F(client_device_death, no_buffer_aborts_with_the_assertion_in_every_build) {
    no_buffers = true;
    db_device_info_data data = {};
    ravo_mobile_gen_uuid_data_set set = {};
    ravo_mobile_gen_uuid_data_get get = {};
    ravo_mobile_gen_uuid_data_get* pointer = &get;
    db_query_cond cond = {};
    list_header header = {};
    const auto aborted = testing::KilledBySignal(SIGABRT);
    EXPECT_EXIT(add_device_info(&data, &get), aborted, "io != NULL");
    EXPECT_EXIT(clean_device_info(), aborted, "io != NULL");
    EXPECT_EXIT(ravo_mobile_gen_ravo_uuid(&set, &pointer), aborted, "io != NULL");
    EXPECT_EXIT(clean_privilege_user_block(), aborted, "io != NULL");
    for (const name_function& f : name_functions) {
        EXPECT_EXIT(call_with_name(f.function, "alice"), aborted, "io != NULL");
    }
    for (const list_function& l : lists) {
        EXPECT_EXIT(l.call(&cond, header), aborted, "io != NULL");
    }
}

TEST(client_library, exports_exactly_these_24_names) {
    FILE* out = popen("nm -D --format=just-symbols --defined-only '" CLIENT_LIBRARY "'", "re");
    ASSERT_NE(out, nullptr);
    std::string text;
    char part[4096];
    while (fgets(part, sizeof part, out) != nullptr) text += part;
    EXPECT_EQ(pclose(out), 0);
    texts names = split_lines(text);
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (texts{"add_conn_client_log",
                            "add_conn_server_log",
                            "add_device_info",
                            "add_event_data",
                            "add_privilege_user_block",
                            "add_server_list",
                            "check_privilege_user_block",
                            "clean_conn_client_log",
                            "clean_conn_server_log",
                            "clean_device_info",
                            "clean_privilege_user_block",
                            "clean_server_list",
                            "delete_conn_client_log",
                            "delete_conn_server_log",
                            "delete_device_info",
                            "delete_privilege_user_block",
                            "delete_server_list",
                            "list_conn_client_log",
                            "list_conn_server_log",
                            "list_device_info",
                            "list_event_data",
                            "list_privilege_user_block",
                            "list_server_list",
                            "ravo_mobile_gen_ravo_uuid"}));
}
