// The client library on another bus library: one with the same C interface, first in
// LD_LIBRARY_PATH, that records each call and answers as it is told.
#include "ravo_api.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "standin/standin.h"
#include "support/files.h"
#include "support/rows.h"

namespace {

constexpr int failed = -3;  // any failure of a bus

// The stand-in is reached through the library that the loader has put under the client library.
standin_bus* loaded_standin() {
    using function = standin_bus* (*)();
    const auto get = reinterpret_cast<function>(dlsym(RTLD_DEFAULT, "standin"));
    return get != nullptr ? get() : nullptr;
}

// --- The functions by pattern -------------------------------------------------------------------

struct write_function {
    const char* method;
    size_t size;  // of the record that is sent; 0: nothing is sent
    int (*call)(std::string& record);
};

template <class Record>
int with_record(int (*function)(Record*), std::string& bytes) {
    Record record;
    memcpy(&record, bytes.data(), sizeof record);
    const int result = function(&record);
    bytes = bytes_of(record);
    return result;
}

const write_function writes[] = {
    {"db_conn_insert", 5200, [](std::string& r) { return with_record(add_conn_server_log, r); }},
    {"db_conn_server_log_del", 8,
     [](std::string& r) { return with_record(delete_conn_server_log, r); }},
    {"db_conn_server_log_clean", 0, [](std::string&) { return clean_conn_server_log(); }},
    {"db_conn_client_log_insert", 3152,
     [](std::string& r) { return with_record(add_conn_client_log, r); }},
    {"db_conn_client_log_del", 8,
     [](std::string& r) { return with_record(delete_conn_client_log, r); }},
    {"db_conn_client_log_clean", 0, [](std::string&) { return clean_conn_client_log(); }},
    {"db_event_insert", 1, [](std::string& r) { return with_record(add_event_data, r); }},
    {"db_server_list_insert", 4128, [](std::string& r) { return with_record(add_server_list, r); }},
    {"db_server_list_del", 8, [](std::string& r) { return with_record(delete_server_list, r); }},
    {"db_server_list_clean", 0, [](std::string&) { return clean_server_list(); }},
};

// A result header of any table, as bytes: what the caller poisons and finds again.
struct list_header {
    uint64_t count;
    uint64_t total;
    void* data;
};

struct list_function {
    const char* method;
    size_t row;
    int (*call)(db_query_cond* cond, list_header& header);
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

const list_function lists[] = {
    {"db_conn_server_log_query", 5200,
     [](db_query_cond* c, list_header& h) { return with_header(list_conn_server_log, c, h); }},
    {"db_conn_client_log_query", 3152,
     [](db_query_cond* c, list_header& h) { return with_header(list_conn_client_log, c, h); }},
    {"db_event_query", 1,
     [](db_query_cond* c, list_header& h) { return with_header(list_event_data, c, h); }},
    {"db_server_list_query", 4128,
     [](db_query_cond* c, list_header& h) { return with_header(list_server_list, c, h); }},
};

// Bytes of which no two neighbours are alike.
std::string pattern(size_t size) {
    std::string bytes;
    for (size_t n = 0; n < size; ++n) bytes += static_cast<char>(n * 7 + n / 256);
    return bytes;
}

std::string reply_header(uint64_t count, uint64_t total) {
    return bytes_of(list_header{count, total, reinterpret_cast<void*>(0x123456789abcd0)});
}

class client : public testing::Test {
  protected:
    client() : bus(*loaded_standin()) { bus = {}; }
    ~client() override {
        EXPECT_EQ(bus.live_buffers, 0U) << "each call releases its buffer";
        EXPECT_EQ(count_of(read_file(log_path), "\n"), 0U) << "these functions do not log";
    }

    void answer_with(int result, const std::string& reply = {}) {
        bus.answer = [result, reply](zb_io* io) {
            write(io, reply);
            return result;
        };
    }
    static void write(zb_io* io, const std::string& bytes) {
        if (bytes.empty()) return;
        zb_io_realloc(io, bytes.size());
        memcpy(zb_io_read(io, nullptr), bytes.data(), bytes.size());
    }

    void expect_call(const std::string& method, const std::string& request) {
        ASSERT_EQ(bus.calls.size(), 1U);
        EXPECT_EQ(bus.calls[0].path, "@/var/run/ravod.sock");
        EXPECT_EQ(bus.calls[0].method, method);
        EXPECT_TRUE(bus.calls[0].request == request) << bus.calls[0].request.size() << " bytes";
        EXPECT_EQ(bus.calls[0].timeout_s, 5);
        EXPECT_EQ(bus.calls[0].fd, -1);
        bus.calls.clear();
    }

    // Expects 0 and a header that is as it was, whatever the bus answered.
    void expect_nothing_read(const list_function& list) {
        db_query_cond cond = page(0, -1);
        char mark = 0;
        list_header header = {11, 22, &mark};
        EXPECT_EQ(list.call(&cond, header), 0);
        EXPECT_EQ(header.count, 11U);
        EXPECT_EQ(header.total, 22U);
        EXPECT_EQ(header.data, &mark);
    }

    standin_bus& bus;
};

using client_death = client;

}  // namespace

TEST_F(client, writes_send_the_record_whole_and_once) {
    for (const write_function& w : writes) {
        SCOPED_TRACE(w.method);
        const std::string sent = pattern(w.size);
        std::string record = sent;
        EXPECT_EQ(w.call(record), 0);
        EXPECT_EQ(record, sent) << "the record stays the caller's";
        expect_call(w.method, sent);
        EXPECT_EQ(bus.writes.size(), w.size == 0 ? 0U : 1U);
        bus.writes.clear();
    }
}

TEST_F(client, empty_record_is_sent_whole_too) {
    for (const write_function& w : writes) {
        std::string record(w.size, '\0');
        EXPECT_EQ(w.call(record), 0);
        expect_call(w.method, std::string(w.size, '\0'));
    }
}

TEST_F(client, writes_pass_the_result_of_the_call_on_unchanged) {
    for (const write_function& w : writes) {
        for (const int result : {-1, -3, -8, 1, 7, INT32_MAX, INT32_MIN}) {
            SCOPED_TRACE(std::string(w.method) + " " + std::to_string(result));
            answer_with(result, "ignored");
            std::string record(w.size, '\0');
            EXPECT_EQ(w.call(record), result);
        }
    }
}

TEST_F(client, request_that_cannot_be_written_is_a_failed_call) {
    for (const write_function& w : writes) {
        if (w.size == 0) continue;
        bus.writes.clear();
        bus.failing_write = 1;
        std::string record(w.size, '\0');
        EXPECT_LT(w.call(record), 0) << w.method;
        EXPECT_EQ(bus.calls.size(), 0U) << "half a request is not sent";
    }
    for (const list_function& l : lists) {
        bus.writes.clear();
        bus.failing_write = 1;
        expect_nothing_read(l);
        EXPECT_EQ(bus.calls.size(), 0U);
    }
}

TEST_F(client, lists_send_the_condition_whole) {
    for (const list_function& l : lists) {
        SCOPED_TRACE(l.method);
        const std::string sent = pattern(sizeof(db_query_cond));
        db_query_cond cond;
        memcpy(&cond, sent.data(), sizeof cond);
        list_header header = {};
        EXPECT_EQ(l.call(&cond, header), 0);
        EXPECT_EQ(bytes_of(cond), sent);
        expect_call(l.method, sent);
    }
}

TEST_F(client, lists_unpack_count_total_and_rows) {
    for (const list_function& l : lists) {
        SCOPED_TRACE(l.method);
        const std::string rows = pattern(3 * l.row);
        answer_with(0, reply_header(3, 99) + rows);
        db_query_cond cond = page(0, -1);
        list_header header = {11, 22, nullptr};
        EXPECT_EQ(l.call(&cond, header), 0);
        EXPECT_EQ(header.count, 3U);
        EXPECT_EQ(header.total, 99U);
        ASSERT_NE(header.data, nullptr);
        EXPECT_TRUE(std::string(static_cast<const char*>(header.data), rows.size()) == rows);
        free(header.data);
    }
}

TEST_F(client, bytes_behind_the_rows_are_ignored) {
    for (const list_function& l : lists) {
        const std::string rows = pattern(l.row);
        answer_with(0, reply_header(1, 1) + rows + "more");
        db_query_cond cond = page(0, -1);
        list_header header = {};
        EXPECT_EQ(l.call(&cond, header), 0);
        ASSERT_EQ(header.count, 1U) << l.method;
        EXPECT_TRUE(std::string(static_cast<const char*>(header.data), rows.size()) == rows);
        free(header.data);
    }
}

TEST_F(client, empty_page_comes_with_a_block_to_free) {
    for (const list_function& l : lists) {
        SCOPED_TRACE(l.method);
        answer_with(0, reply_header(0, UINT64_MAX));
        db_query_cond cond = page(0, -1);
        list_header header = {11, 22, nullptr};
        EXPECT_EQ(l.call(&cond, header), 0);
        EXPECT_EQ(header.count, 0U);
        EXPECT_EQ(header.total, UINT64_MAX);
        EXPECT_NE(header.data, nullptr);
        free(header.data);
    }
}

TEST_F(client, failed_list_returns_0_and_leaves_the_header) {
    for (const list_function& l : lists) {
        for (const int result : {failed, -1, 1, 42}) {
            SCOPED_TRACE(std::string(l.method) + " " + std::to_string(result));
            answer_with(result, reply_header(1, 1) + pattern(l.row));
            expect_nothing_read(l);
        }
    }
}

TEST_F(client, reply_shorter_than_its_header_counts_as_failed) {
    for (const list_function& l : lists) {
        for (size_t length = 0; length < 24; ++length) {
            SCOPED_TRACE(std::string(l.method) + " " + std::to_string(length));
            answer_with(0, reply_header(0, 5).substr(0, length));
            expect_nothing_read(l);
        }
    }
}

TEST_F(client, reply_shorter_than_its_rows_counts_as_failed) {
    for (const list_function& l : lists) {
        for (const size_t length : {size_t{0}, l.row - 1, 2 * l.row, 3 * l.row - 1}) {
            if (length >= 3 * l.row) continue;
            SCOPED_TRACE(std::string(l.method) + " " + std::to_string(length));
            answer_with(0, reply_header(3, 3) + std::string(length, 'x'));
            expect_nothing_read(l);
        }
    }
}

// Counts whose size in bytes, taken modulo 2^64, would fit into the reply or be nothing.
TEST_F(client, count_that_overflows_counts_as_failed) {
    for (const list_function& l : lists) {
        for (const uint64_t count :
             {uint64_t{1} << 61, uint64_t{1} << 60, uint64_t{1} << 59, uint64_t{1} << 63,
              UINT64_MAX, UINT64_MAX / l.row + (l.row > 1 ? 1 : 0), uint64_t{1} << 32}) {
            SCOPED_TRACE(std::string(l.method) + " " + std::to_string(count));
            answer_with(0, reply_header(count, 1) + std::string(2 * l.row, 'x'));
            expect_nothing_read(l);
        }
    }
}

TEST_F(client, list_of_100000_rows_is_read_whole) {
    constexpr uint64_t count = 100000;
    constexpr size_t row = sizeof(db_conn_server_log);
    bus.answer = [](zb_io* io) {
        zb_io_realloc(io, 24 + count * row);
        auto* bytes = static_cast<char*>(zb_io_read(io, nullptr));
        memcpy(bytes, reply_header(count, count).data(), 24);
        for (uint64_t n = 0; n < count; ++n) memcpy(bytes + 24 + n * row, &n, sizeof n);
        return 0;
    };
    db_query_cond cond = page(0, -1);
    db_conn_server_log_query header = {};
    db_conn_server_log_query* pointer = &header;
    EXPECT_EQ(list_conn_server_log(&cond, &pointer), 0);
    ASSERT_EQ(header.count, count);
    size_t wrong = 0;
    for (uint64_t n = 0; n < count; ++n) wrong += header.data[n].id != static_cast<int64_t>(n);
    EXPECT_EQ(wrong, 0U);
    free(header.data);
}

TEST_F(client_death, no_buffer_aborts_with_the_assertion_in_every_build) {
    bus.no_buffers = true;
    std::string record(5200, '\0');
    EXPECT_EXIT(writes[0].call(record), testing::KilledBySignal(SIGABRT), "io != NULL");
    EXPECT_EXIT(clean_server_list(), testing::KilledBySignal(SIGABRT), "io != NULL");
    db_query_cond cond = page(0, -1);
    list_header header = {};
    EXPECT_EXIT(lists[0].call(&cond, header), testing::KilledBySignal(SIGABRT), "io != NULL");
}

// As an operator would put another bus library in place: by the environment of the program.
int main(int argc, char** argv) {
    if (loaded_standin() == nullptr) {
        if (getenv(standin_script) != nullptr) {
            (void)fputs("client_test: the library path does not win over the built-in one\n",
                        stderr);
            return 1;
        }
        setenv(standin_script, "/dev/null", 1);  // seen by the second start
        setenv("LD_LIBRARY_PATH", STANDIN_FOLDER, 1);
        execv("/proc/self/exe", argv);
        perror("client_test: exec");
        return 1;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
