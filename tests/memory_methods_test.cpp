// Memory that runs out in the daemon: each allocation of each method, of the start and of the stop
// fails once, in a process of its own. What has happened then is compared with the states before
// and after the call, and with what the log and the reply say.
//
// SQLite keeps no memory of its own in reserve here, so that each of its allocations is one that
// can fail. The bus's buffers are the real ones; its calls are this program's.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "commit_vfs.h"
#include "nc_msg_db.h"
#include "ravod_db_conn_client_handler.h"
#include "ravod_db_device_info_handler.h"
#include "ravod_db_handler.h"
#include "ravod_db_list_handler.h"
#include "ravod_db_privilege_user_block_handler.h"
#include "ravod_handler.h"
#include "ravod_mobile.h"
#include "support/alloc_fault.h"
#include "support/bus.h"
#include "support/files.h"
#include "support/rows.h"

using alloc_fault::failing_allocation;

// --- The daemon's surroundings, which ask for no memory ------------------------------------------

namespace {

constexpr char no_reply[] = "(no reply)";
constexpr time_t start_time = 1795222858;

std::string reply;         // with room for any
bool takes_blocks = true;  // of the bus
void* block = nullptr;     // handed over
void (*release_block)(void*) = nullptr;
size_t block_length = 0;
std::string_view settings;  // the settings service's reply
time_t now = start_time;
size_t notifications = 0;
int uuids = 0;

}  // namespace

#pragma GCC visibility push(default)
extern "C" {

int zb_reply(zb_io* io) {
    size_t length = 0;
    const char* bytes = static_cast<const char*>(zb_io_read(io, &length));
    reply.assign(bytes, length);
    reply.append(static_cast<const char*>(block), block_length);
    if (block != nullptr) release_block(std::exchange(block, nullptr));
    block_length = 0;
    return 0;
}

int zb_io_adopt(zb_io* /*io*/, void* handed_over, size_t length, void (*release)(void*)) {
    if (!takes_blocks) return -1;
    release_block = release;
    block = handed_over;
    block_length = length;
    return 0;
}

int zb_call(const char* /*path*/, const char* /*method*/, zb_io* io, int /*timeout_s*/,
            int /*fd*/) {
    (void)zb_io_realloc(io, 0);
    return zb_io_write(io, settings.data(), settings.size()) == 0 ? 0 : ZB_ERROR_MEMORY;
}

time_t time(time_t* /*place*/) noexcept { return now; }

int __wrap__Z13ravo_uuid_genPc(char* uuid) {
    (void)snprintf(uuid, 36, "uuid %d", ++uuids);
    return 0;
}
void __wrap__ZN4ravo5nclog11notify_sendEPKNS_13nc_msg_structEz() { ++notifications; }
}
#pragma GCC visibility pop

namespace {

// --- The store -----------------------------------------------------------------------------------

constexpr char side_path[] = "/etc/config/ravo/ravo.db-commit";
constexpr char journal_path[] = "/etc/config/ravo/ravo.db-journal";

// As the daemon's. Returns whether all went well.
bool start() {
    int failures = register_commit_vfs(commit_strength::kill_safe);
    failures |= create_conn_server_log_db();
    failures |= create_conn_client_log_db();
    failures |= create_server_list_db();
    failures |= create_device_info_db();
    failures |= create_privilege_user_block_db();
    return failures == 0;
}

void stop() {
    (void)finish_conn_server_log_db();
    (void)finish_conn_client_log_db();
    (void)finish_server_list_db();
    (void)finish_privilege_user_block_db();
}

db_device_info_data device(const char* mac) {
    auto row = zeroed<db_device_info_data>();
    set_text(row.mac, mac);
    set_text(row.dev_name, "laptop");
    return row;
}

zb_io* request_of(const std::string& payload) {
    zb_io* io = zb_io_create();
    if (!payload.empty()) {
        EXPECT_EQ(zb_io_write(io, payload.data(), payload.size()), 0);
    }
    reply = no_reply;
    return io;
}

void ask(const char* method, const std::string& payload) {
    ravod_method_handler(method, request_of(payload), -1);
}

// Before anything else in a process.
void prepare() {
    EXPECT_EQ(sqlite3_config(SQLITE_CONFIG_LOOKASIDE, 0, 0), SQLITE_OK);
    reply.reserve(size_t{1} << 20);
}

void fill() {
    for (const char* name : {"first", "o'second", "third"}) {
        ask("db_conn_insert", bytes_of(row_with_text<db_conn_server_log>(name)));
        ask("db_conn_client_log_insert", bytes_of(row_with_text<db_conn_client_log_data>(name)));
        ask("db_server_list_insert", bytes_of(row_with_text<db_server_list_data>(name)));
        ask("db_device_info_insert", bytes_of(device(name)));
    }
    for (const char* name : {"alice", "alice", "alice", "bob", "carol", "carol"}) {
        ask("db_privilege_user_block_insert", name);
    }
}

// --- What there is afterwards --------------------------------------------------------------------

constexpr char gone[] = "gone";  // a temporary table whose connection was closed

int add_row(void* text, int columns, char** values, char** /*names*/) {
    for (int n = 0; n < columns; ++n) {
        static_cast<std::string*>(text)->append(values[n] != nullptr ? values[n] : "(null)") += '|';
    }
    *static_cast<std::string*>(text) += '\n';
    return 0;
}

// The file as a program without the commit layer sees it: sound, and with nobody's lock on it.
std::string file_rows() {
    std::string check;
    std::string rows;
    sqlite3* db = nullptr;
    EXPECT_EQ(sqlite3_open_v2(db_path, &db, SQLITE_OPEN_READWRITE, "unix"), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(db, "BEGIN EXCLUSIVE; ROLLBACK;", nullptr, nullptr, nullptr), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(db, "PRAGMA integrity_check", add_row, &check, nullptr), SQLITE_OK);
    EXPECT_EQ(check, "ok|\n");
    for (const char* query : {"SELECT * FROM conn_server_log", "SELECT * FROM conn_client_log",
                              "SELECT * FROM privilege_user_block"}) {
        rows += sqlite3_exec(db, query, add_row, &rows, nullptr) == SQLITE_OK ? "--\n" : gone;
    }
    sqlite3_close(db);
    return rows;
}

template <class Query, class Text>
std::string rows_of(int (*select)(db_query_cond*, Query**), Text text) {
    db_query_cond all = page(0, -1);
    Query result = {};
    Query* pointer = &result;
    EXPECT_EQ(select(&all, &pointer), 0);
    std::string rows = result.total == UINT64_MAX ? gone : "";
    for (size_t n = 0; n < result.count; ++n) rows += text(result.data[n]) + "\n";
    free(result.data);
    return rows;
}

struct state {
    std::string file;
    std::string server_list;
    std::string devices;
};

state look() {
    return {file_rows(),
            rows_of(select_server_list,
                    [](const db_server_list_data& row) {
                        return std::to_string(row.id) + row.uuid + row.username + row.sid +
                               row.device_name;
                    }),
            rows_of(select_device_info, [](const db_device_info_data& row) {
                return std::to_string(row.id) + row.mac + row.dev_name + row.dev_uuid;
            })};
}

std::string take_log() {
    const std::string text = read_file(log_path);
    std::filesystem::remove(log_path);
    return text;
}

bool is_one_of(const std::string& found, std::initializer_list<std::string> expected) {
    return std::ranges::find(expected, found) != expected.end();
}

// What is left when work() is over: blocks and descriptors, on top of those before.
std::string left_after(const std::function<void()>& work) {
    const size_t blocks = alloc_fault::live_blocks();
    const size_t descriptors = bus_test::open_descriptors();
    work();
    return std::to_string(static_cast<int64_t>(alloc_fault::live_blocks() - blocks)) + " blocks, " +
           std::to_string(static_cast<int64_t>(bus_test::open_descriptors() - descriptors)) +
           " descriptors";
}

// --- The methods ---------------------------------------------------------------------------------

enum class kind { write, rows, refused, uuid, fresh_uuid, check };

struct scenario {
    const char* name;
    const char* method;
    kind answer;
    std::string request;
    size_t row_size = 0;
    time_t later = 0;  // seconds between the set-up and the call
    std::string_view limiter = R"("enable": true, "limit": 3, "time": 5)";
    const char* counted_anew = nullptr;  // a row that a look without a result leads to
    bool bus_takes_blocks = true;
};

template <class Row>
std::string row_of(const char* text) {
    return bytes_of(row_with_text<Row>(text));
}

db_query_cond ordered_by(int64_t column) {
    db_query_cond cond = page(0, -1);
    cond.order_by = column;
    return cond;
}

std::vector<scenario> scenarios() {
    const std::string all = bytes_of(page(0, -1));
    const std::string second = bytes_of(db_delete_cond{2});
    return {
        {"conn_server_log_insert", "db_conn_insert", kind::write, row_of<db_conn_server_log>("x")},
        {"conn_server_log_query", "db_conn_server_log_query", kind::rows, all, 5200},
        {"conn_server_log_copied", "db_conn_server_log_query", kind::rows, all, 5200, 0, "",
         nullptr, false},
        {"conn_server_log_filter", "db_conn_server_log_query", kind::rows,
         bytes_of(filtered("username", "o'second")), 5200},
        {"conn_server_log_no_column", "db_conn_server_log_query", kind::refused,
         bytes_of(ordered_by(14))},
        {"conn_server_log_clean", "db_conn_server_log_clean", kind::write, ""},
        {"conn_server_log_del", "db_conn_server_log_del", kind::write, second},
        {"conn_client_log_insert", "db_conn_client_log_insert", kind::write,
         row_of<db_conn_client_log_data>("x")},
        {"conn_client_log_query", "db_conn_client_log_query", kind::rows, all, 3152},
        {"conn_client_log_clean", "db_conn_client_log_clean", kind::write, ""},
        {"conn_client_log_del", "db_conn_client_log_del", kind::write, second},
        {"event_insert", "db_event_insert", kind::write, "x"},
        {"event_query", "db_event_query", kind::refused, all},
        {"server_list_insert", "db_server_list_insert", kind::write,
         row_of<db_server_list_data>("x")},
        {"server_list_query", "db_server_list_query", kind::rows, all, 4128},
        {"server_list_clean", "db_server_list_clean", kind::write, ""},
        {"server_list_del", "db_server_list_del", kind::write, second},
        {"device_info_insert", "db_device_info_insert", kind::uuid, bytes_of(device("new"))},
        {"device_info_known", "db_device_info_insert", kind::uuid, bytes_of(device("first"))},
        {"device_info_query", "db_device_info_query", kind::rows, all, 7192},
        {"device_info_clean", "db_device_info_clean", kind::write, ""},
        {"device_info_del", "db_device_info_del", kind::write, second},
        {"uuid", "ravo_mobile_gen_ravo_uuid", kind::fresh_uuid, ""},
        {"failure_of_new_user", "db_privilege_user_block_insert", kind::write, "dave"},
        {"failure_that_blocks", "db_privilege_user_block_insert", kind::write, "carol", 0, 0,
         R"("enable": true, "limit": 3, "time": 5)", "4|carol|1|1795222858|\n"},
        {"blocks_query", "db_privilege_user_block_query", kind::rows, all, 1048},
        {"lift", "db_privilege_user_block_del", kind::write, "alice"},
        {"lift_of_all", "db_privilege_user_block_clean", kind::write, ""},
        {"check_of_blocked", "db_privilege_user_block_check", kind::check, "alice"},
        {"check_of_run_out", "db_privilege_user_block_check", kind::check, "alice", 0, 300},
        {"check_while_off", "db_privilege_user_block_check", kind::check, "alice", 0, 0,
         R"("enable": false)"},
    };
}

void PrintTo(const scenario& s, std::ostream* out) { *out << s.name; }
std::string name_of(const testing::TestParamInfo<scenario>& info) { return info.param.name; }

// What a call came to.
struct outcome {
    std::string reply;
    size_t notifications;
    std::string log;
    state left;
};

class method : public testing::TestWithParam<scenario> {
  protected:
    method() {
        prepare();
        takes_blocks = s.bus_takes_blocks;
        settings = answer_of_settings;
        EXPECT_TRUE(start());
        fill();
        now += s.later;
        notifications = 0;
        EXPECT_EQ(take_log(), "");
        bytes = read_file(db_path);
        side_bytes = read_file(side_path);
    }
    ~method() override { stop(); }

    // In place, since this process has both open.
    void restore() const {
        if (read_file(db_path) != bytes) write_file(db_path, bytes);
        if (read_file(side_path) != side_bytes) write_file(side_path, side_bytes);
        std::filesystem::remove(journal_path);
        std::filesystem::remove(log_path);
    }

    // The call, whose n-th allocation fails.
    outcome call(size_t n) const {
        zb_io* io = request_of(s.request);
        {
            const failing_allocation fault(n);
            ravod_method_handler(s.method, io, -1);
        }
        return {reply, notifications, take_log(), look()};
    }

    std::string field_of_whole(const std::function<std::string(const outcome&)>& field) const {
        restore();
        return alloc_fault::told_by_child([&] { return field(call(0)); });
    }

    static void end() {
        stop();
        (void)finish_device_info_db();
    }

    std::string left_after_calls(const std::function<void()>& first_call) const {
        return left_after([&] {
            first_call();
            expect_next_call();
            end();
        });
    }

    void expect_next_call() const {
        ask(s.method, s.request);
        if (s.answer != kind::refused) {
            EXPECT_NE(reply, no_reply);
        }
        (void)file_rows();
    }

    void expect_reply(const outcome& got) const {
        if (got.reply == no_reply) {
            EXPECT_NE(s.answer, kind::write);
        } else if (s.answer == kind::rows) {
            expect_rows(got);
        } else if (s.answer == kind::uuid) {
            // Empty also when there was no memory for the row that was looked up.
            EXPECT_TRUE(is_one_of(got.reply, {whole.reply, std::string(36, '\0')})) << got.reply;
        } else if (s.answer == kind::fresh_uuid) {
            EXPECT_EQ(got.reply.size(), whole.reply.size());
        } else if (got.log.empty() || s.answer == kind::write) {
            EXPECT_EQ(got.reply, whole.reply);
        } else {
            EXPECT_TRUE(is_one_of(got.reply, {whole.reply, "0", "-1"})) << got.reply;
        }
    }

    // The rows are those of the whole reply, in their order, without some of them. Only the log
    // tells that a statement has failed; a single row that there was no room for goes untold.
    void expect_rows(const outcome& got) const {
        constexpr size_t header_size = 24;
        ASSERT_GE(got.reply.size(), header_size);
        uint64_t numbers[2] = {};
        memcpy(numbers, got.reply.data(), sizeof numbers);
        const auto [count, total] = numbers;
        ASSERT_EQ(got.reply.size(), header_size + count * s.row_size);
        size_t at = header_size;
        for (size_t row = header_size; row < got.reply.size(); row += s.row_size) {
            at = whole.reply.find(got.reply.substr(row, s.row_size), at);
            ASSERT_NE(at, std::string::npos) << "row " << row / s.row_size;
            at += s.row_size;
        }
        const bool is_complete = got.reply.size() == whole.reply.size();
        const bool lacks_one = got.reply.size() + s.row_size == whole.reply.size();
        EXPECT_TRUE(is_complete || lacks_one || !got.log.empty());
        EXPECT_TRUE(got.reply.substr(8, 8) == whole.reply.substr(8, 8) ||
                    (total == UINT64_MAX && !got.log.empty()));
    }

    // Each table is as before or as after the call; what was not done, or is gone with its
    // connection, is told in the log.
    void expect_state(const outcome& got) const {
        const bool is_told = !got.log.empty();
        const auto expect_table = [&](std::string state::*table, const std::string& other) {
            const std::string& found = got.left.*table;
            EXPECT_TRUE(found == whole.left.*table ||
                        (is_told && is_one_of(found, {before.*table, other})))
                << found << "\nlog: " << got.log;
        };
        std::string anew = before.file;
        if (s.counted_anew != nullptr) anew.insert(anew.rfind("--"), s.counted_anew);
        expect_table(&state::file, anew);
        expect_table(&state::server_list, gone);
        expect_table(&state::devices, gone);
        EXPECT_TRUE(got.notifications == whole.notifications ||
                    (got.notifications < whole.notifications && (is_told || s.request.empty())));
    }

    const scenario s = GetParam();
    // A text that is long enough for Jansson's buffers to grow.
    const std::string answer_of_settings =
        R"({"error": 0, "data": {"what the settings are for": "attempts to log in", "global": {)" +
        std::string(s.limiter) + "}}}";
    std::string bytes;
    std::string side_bytes;
    state before;
    outcome whole;  // without a fault
};
INSTANTIATE_TEST_SUITE_P(each, method, testing::ValuesIn(scenarios()), name_of);

TEST_P(method, is_done_or_not_wherever_memory_runs_out) {
    before = look();
    whole = {field_of_whole([](const outcome& got) { return got.reply; }),
             std::stoul(field_of_whole(
                 [](const outcome& got) { return std::to_string(got.notifications); })),
             field_of_whole([](const outcome& got) { return got.log; }),
             {field_of_whole([](const outcome& got) { return got.left.file; }),
              field_of_whole([](const outcome& got) { return got.left.server_list; }),
              field_of_whole([](const outcome& got) { return got.left.devices; })}};
    EXPECT_EQ(whole.reply == no_reply, s.answer == kind::refused);
    restore();
    const std::string left =
        alloc_fault::told_by_child([&] { return left_after_calls([&] { (void)call(0); }); });
    const std::string idle = alloc_fault::told_by_child([] { return left_after(end); });
    const int kept = s.answer == kind::refused ? 2 : 0;  // a header by each of the two calls
    EXPECT_EQ(std::stoi(left), std::stoi(idle) + kept);
    alloc_fault::exhaust(
        s.name,
        [&](size_t n) {
            const std::string found = left_after_calls([&] {
                const outcome got = call(n);
                expect_reply(got);
                expect_state(got);
            });
            // The one allocation of a refused query is the header that it keeps.
            if (s.answer == kind::refused) {
                EXPECT_EQ(std::stoi(found), std::stoi(left) - (alloc_fault::was_met() ? 1 : 0));
            } else {
                EXPECT_EQ(found, left);
            }
        },
        [&] { restore(); });
}

// --- Start and stop ------------------------------------------------------------------------------

// A start, the requests that follow it, and the stop.
class life : public testing::Test {
  protected:
    life() { prepare(); }

    struct outcome {
        std::string file;
        std::string log;
    };

    // The start's n-th allocation fails.
    static outcome live(size_t n) {
        {
            const failing_allocation fault(n);
            (void)start();
        }
        std::string log = take_log();
        ask("db_conn_insert", row_of<db_conn_server_log>("x"));
        EXPECT_EQ(reply, "");
        ask("db_conn_client_log_insert", row_of<db_conn_client_log_data>("x"));
        EXPECT_EQ(reply, "");
        ask("db_privilege_user_block_insert", "dave");
        EXPECT_EQ(reply, "");
        ask("db_device_info_insert", bytes_of(device("x")));
        EXPECT_EQ(reply.size(), 36U);
        (void)look();
        stop();
        (void)finish_device_info_db();
        return {file_rows(), log};
    }

    static void put_file(const std::string& bytes) {
        for (const char* path : {db_path, side_path, journal_path, log_path}) {
            std::filesystem::remove(path);
        }
        if (!bytes.empty()) write_file(db_path, bytes);
    }

    // Whatever allocation of the start fails, expect(outcome, outcome without a fault) holds.
    template <class Expect>
    static void fail_each(const std::string& name, const std::string& file, Expect expect) {
        put_file(file);
        const std::string whole = alloc_fault::told_by_child([] { return live(0).file; });
        put_file(file);
        const std::string left =
            alloc_fault::told_by_child([] { return left_after([] { (void)live(0); }); });
        alloc_fault::exhaust(
            name,
            [&](size_t n) {
                const std::string found = left_after([&] { expect(live(n), whole); });
                EXPECT_LE(std::stoi(found), std::stoi(left)) << "what is kept once may be missing";
                EXPECT_TRUE(found.ends_with(", 0 descriptors")) << found;
            },
            [&] { put_file(file); }, 9);
    }
};

TEST_F(life, goes_on_with_every_row_wherever_memory_runs_out_in_the_start) {
    (void)alloc_fault::told_by_child([] {
        EXPECT_TRUE(start());
        fill();
        stop();
        return std::string();
    });
    fail_each("start", read_file(db_path), [](const outcome& got, const std::string& whole) {
        EXPECT_EQ(got.file, whole) << got.log;
    });
}

// Without its table a row is lost; that there is none is told.
TEST_F(life, makes_each_table_or_tells_wherever_memory_runs_out_in_the_first_start) {
    fail_each("first start", "", [](const outcome& got, const std::string& whole) {
        EXPECT_TRUE(got.file == whole || !got.log.empty()) << got.file;
    });
}

TEST_F(life, ends_wherever_memory_runs_out_in_the_stop) {
    EXPECT_TRUE(start());
    fill();
    const std::string rows = file_rows();
    const auto stop_with = [](size_t n) {
        return left_after([n] {
            {
                const failing_allocation fault(n);
                stop();
            }
            (void)finish_device_info_db();
        });
    };
    const std::string left = alloc_fault::told_by_child([&] { return stop_with(0); });
    alloc_fault::exhaust(
        "stop",
        [&](size_t n) {
            EXPECT_EQ(stop_with(n), left);
            EXPECT_EQ(file_rows(), rows);
        },
        [] {});
    stop();
}

}  // namespace
