// A real daemon and the real client library on the real bus, from end to end.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ravo_api.h"
#include "support/daemon.h"
#include "support/files.h"
#include "support/rows.h"
#include "zbservice.h"

namespace {

using strings = std::vector<std::string>;
constexpr char endpoint[] = "@/var/run/ravod.sock";

struct method {
    const char* name;
    size_t record;  // bytes of the request's record; 0: any length will do
    bool is_query;
};

constexpr method methods[] = {
    {"db_conn_insert", 5200, false},
    {"db_conn_server_log_query", 2088, true},
    {"db_conn_server_log_clean", 0, false},
    {"db_conn_server_log_del", 8, false},
    {"db_conn_client_log_insert", 3152, false},
    {"db_conn_client_log_query", 2088, true},
    {"db_conn_client_log_clean", 0, false},
    {"db_conn_client_log_del", 8, false},
    {"db_event_insert", 0, false},
    {"db_event_query", 2088, true},
    {"db_server_list_insert", 4128, false},
    {"db_server_list_query", 2088, true},
    {"db_server_list_del", 8, false},
    {"db_server_list_clean", 0, false},
};

// What a call without the client library comes to.
struct answer {
    int result;
    std::string reply;
};

answer call(const std::string& name, const std::string& request, int fd = -1) {
    zb_io* io = zb_io_create();
    if (!request.empty()) zb_io_write(io, request.data(), request.size());
    const int result = zb_call(endpoint, name.c_str(), io, 5, fd);
    size_t length = 0;
    const auto* bytes = static_cast<const char*>(zb_io_read(io, &length));
    answer got = {result, result == 0 ? std::string(bytes, length) : ""};
    zb_io_free(io);
    return got;
}

// A page as the client library reads it; no value when the header was left as it was.
template <class Row>
struct rows_read {
    std::vector<Row> rows;
    uint64_t total;
};

template <class Query>
auto read(int (*list)(db_query_cond*, Query**), db_query_cond cond) {
    using row = std::remove_pointer_t<decltype(Query::data)>;
    Query header = {};
    Query* pointer = &header;
    EXPECT_EQ(list(&cond, &pointer), 0);
    std::optional<rows_read<row>> got;
    if (header.data != nullptr) {
        got = {std::vector<row>(header.data, header.data + header.count), header.total};
        free(header.data);
    }
    return got;
}

template <class Query>
uint64_t total(int (*list)(db_query_cond*, Query**)) {
    const auto got = read(list, page(0, 0));
    return got ? got->total : UINT64_MAX - 1;
}

class e2e_client : public testing::Test {
  protected:
    // The daemon goes on: it answers, and its table has what it had.
    static void expect_serving(uint64_t rows) {
        EXPECT_EQ(total(list_conn_server_log), rows);
        EXPECT_EQ(call("db_event_insert", "").result, 0);
    }

    template <class Row, class Query>
    void expect_round_trip(int (*add)(Row*), int (*list)(db_query_cond*, Query**),
                           const strings& texts) {
        std::vector<Row> sent;
        for (const std::string& text : texts) {
            Row row = row_with_text<Row>(text);
            set_numbers(row, static_cast<int32_t>(sent.size() % 2000));
            ASSERT_EQ(add(&row), 0);
            sent.push_back(row);
            sent.back().id = static_cast<int64_t>(sent.size());
        }
        const auto got = read(list, page(0, -1));
        ASSERT_TRUE(got);
        ASSERT_EQ(got->rows.size(), sent.size());
        EXPECT_EQ(got->total, sent.size());
        for (size_t n = 0; n < sent.size(); ++n) {
            EXPECT_TRUE(bytes_of(got->rows[n]) == bytes_of(sent[n])) << "text " << n;
        }
    }

    void expect_round_trips(const strings& texts) {
        expect_round_trip(add_conn_server_log, list_conn_server_log, texts);
        expect_round_trip(add_conn_client_log, list_conn_client_log, texts);
        expect_round_trip(add_server_list, list_server_list, texts);
        EXPECT_EQ(read_file(log_path), "") << "no statement failed";
    }

    ravod_process daemon;
};

class half_frame {
  public:
    explicit half_frame(const std::string& bytes)
        : fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        const std::string name = endpoint + 1;
        memcpy(address.sun_path + 1, name.data(), name.size());
        const auto length =
            static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
        EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&address), length), 0);
        if (!bytes.empty()) {
            EXPECT_EQ(::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL),
                      static_cast<ssize_t>(bytes.size()));
        }
    }
    ~half_frame() { close(fd); }
    half_frame(const half_frame&) = delete;
    half_frame& operator=(const half_frame&) = delete;

  private:
    int fd;
};

// A request frame: "zbus", version 1, kind 1, the method's length in two bytes, the payload's in
// eight, then both.
std::string frame(const std::string& name, uint64_t length, const std::string& payload) {
    std::string bytes = "zbus\x01\x01";
    bytes += static_cast<char>(name.size() % 256);
    bytes += static_cast<char>(name.size() / 256);
    bytes += bytes_of(length);
    return bytes + name + payload;
}

}  // namespace

// --- What is written is read back ---------------------------------------------------------------

TEST_F(e2e_client, every_byte_but_nul_is_read_back) {
    strings texts;
    for (int byte = 1; byte <= 255; ++byte) texts.emplace_back(1, static_cast<char>(byte));
    std::string all;
    for (const std::string& text : texts) all += text;
    texts.push_back(all);
    texts.emplace_back(all.rbegin(), all.rend());
    texts.push_back(all + all + all + all + all);
    expect_round_trips(texts);
}

TEST_F(e2e_client, text_that_means_something_to_sql_or_printf_is_read_back) {
    expect_round_trips({
        "",
        "'",
        "''",
        "'''",
        "it's",
        "\"",
        "`",
        "[x]",
        ";",
        "--",
        "/*",
        "*/",
        "\\",
        "\\'",
        "'); DROP TABLE conn_server_log; --",
        "' OR '1'='1",
        "%",
        "%%",
        "%s",
        "%n",
        "%q",
        "%lu",
        "%s%s%s%s%s%n",
        "100%",
        "NULL",
        "null",
        "?",
        ":name",
        "@name",
        "$name",
        "x'00'",
        "0x10",
        " leading",
        "trailing ",
        "\t\r\n",
        "two\nlines",
        std::string(1024, '\''),
        std::string(1024, '%'),
        std::string(1024, 'x'),
        std::string(1023, '"'),
    });
}

TEST_F(e2e_client, utf8_and_what_is_none_is_read_back) {
    std::string euros;
    for (int n = 0; n < 341; ++n) euros += "\u20ac";  // 1023 bytes
    expect_round_trips({
        "\u00e4\u00f6\u00fc \u00df",
        "\u65e5\u672c\u8a9e",
        "\U0001f511\U0001f30d",
        "e\u0301",
        "\u202eabc",
        "\ufeffbom",
        "\ufffd",
        euros,
        euros + "\u20ac",
        "\xc0\x80",
        "\xed\xa0\x80",
        "\xf5\x80\x80\x80",
        "\x80",
        "ok\xff",
        "\xe2\x82",
        "'\xe2'\x82'",
    });
}

TEST_F(e2e_client, numbers_at_their_ends_are_read_back) {
    auto low = row_with_text<db_conn_server_log>("low");
    low.vpn_type = low.action = INT32_MIN;
    low.tx_rate = low.rx_rate = low.tx_total = low.rx_total = INT64_MIN;
    auto high = row_with_text<db_conn_server_log>("high");
    high.vpn_type = high.action = INT32_MAX;
    high.uptime = high.time = INT64_MAX;
    high.tx_rate = high.rx_rate = high.tx_total = high.rx_total = INT64_MAX;
    ASSERT_EQ(add_conn_server_log(&low), 0);
    ASSERT_EQ(add_conn_server_log(&high), 0);
    const auto got = read(list_conn_server_log, page(0, -1));
    ASSERT_TRUE(got && got->rows.size() == 2);
    low.id = 1, high.id = 2;
    EXPECT_TRUE(bytes_of(got->rows[0]) == bytes_of(low));
    EXPECT_TRUE(bytes_of(got->rows[1]) == bytes_of(high));
}

TEST_F(e2e_client, pages_filters_and_orders_come_as_asked) {
    for (int n = 1; n <= 6; ++n) {
        auto row = row_with_text<db_conn_client_log_data>(n % 2 == 0 ? "even" : "odd");
        set_numbers(row, 100 - n);
        ASSERT_EQ(add_conn_client_log(&row), 0);
    }
    const auto ids = [](db_query_cond cond) {
        std::string text;
        const auto got = read(list_conn_client_log, cond);
        if (!got) return std::string("not read");
        for (const auto& row : got->rows) text += std::to_string(row.id);
        return text + " of " + std::to_string(got->total);
    };
    db_query_cond cond = page(0, -1);
    EXPECT_EQ(ids(cond), "123456 of 6");
    EXPECT_EQ(ids(page(2, 3)), "345 of 6");
    EXPECT_EQ(ids(page(6, 3)), " of 6");
    EXPECT_EQ(ids(filtered("username", "even")), "246 of 6");
    for (const int64_t style : {1, 2, -1}) {
        cond.order_style = style;
        EXPECT_EQ(ids(cond), "654321 of 6") << style;
    }
    cond.order_style = 0;
    cond.order_by = 2;  // vpn_type, which falls
    EXPECT_EQ(ids(cond), "654321 of 6");
    cond.order_by = 13;  // one more than there are
    EXPECT_EQ(ids(cond), "not read");
}

TEST_F(e2e_client, delete_and_clean_take_rows_away) {
    auto row = row_with_text<db_conn_server_log>("x");
    for (int n = 0; n < 3; ++n) ASSERT_EQ(add_conn_server_log(&row), 0);
    db_delete_cond second = {2};
    EXPECT_EQ(delete_conn_server_log(&second), 0);
    const auto got = read(list_conn_server_log, page(0, -1));
    ASSERT_TRUE(got && got->rows.size() == 2);
    EXPECT_EQ(got->rows[1].id, 3);

    auto client_row = row_with_text<db_conn_client_log_data>("x");
    ASSERT_EQ(add_conn_client_log(&client_row), 0);
    EXPECT_EQ(clean_conn_client_log(), 0);
    EXPECT_EQ(total(list_conn_client_log), 0U);

    auto server = row_with_text<db_server_list_data>("x");
    ASSERT_EQ(add_server_list(&server), 0);
    ASSERT_EQ(add_server_list(&server), 0);
    db_delete_cond first = {1};
    EXPECT_EQ(delete_server_list(&first), 0);
    EXPECT_EQ(total(list_server_list), 1U);
}

TEST_F(e2e_client, server_list_is_cleaned) {
    auto server = row_with_text<db_server_list_data>("x");
    ASSERT_EQ(add_server_list(&server), 0);
    EXPECT_EQ(clean_server_list(), 0);
    EXPECT_EQ(total(list_server_list), 0U);
}

TEST_F(e2e_client, events_are_accepted_and_cannot_be_listed) {
    db_event_data event = {};
    EXPECT_EQ(add_event_data(&event), 0);
    EXPECT_FALSE(read(list_event_data, page(0, -1)));
}

TEST_F(e2e_client, list_of_100000_rows_arrives_whole) {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(db_path, &db), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(db,
                           "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n LIMIT "
                           "100050) INSERT INTO conn_client_log (username, uptime) SELECT 'u'||i, "
                           "i FROM n",
                           nullptr, nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(db);
    db_query_cond cond = page(0, -1);
    db_conn_client_log_query header = {};
    db_conn_client_log_query* pointer = &header;
    ASSERT_EQ(list_conn_client_log(&cond, &pointer), 0);
    ASSERT_EQ(header.count, 100000U);
    EXPECT_EQ(header.total, 100000U);
    size_t wrong = 0;
    for (uint64_t n = 0; n < header.count; ++n) {
        const auto id = static_cast<int64_t>(n + 51);
        const db_conn_client_log_data& row = header.data[n];
        if (row.id != id || row.username + 1 != std::to_string(id)) ++wrong;
    }
    EXPECT_EQ(wrong, 0U);
    free(header.data);
}

// Pages' memory is used again. Nothing of an earlier page may be behind the shorter texts of a
// later.
TEST_F(e2e_client, page_has_no_bytes_of_an_earlier_page) {
    constexpr int64_t rows = 60;  // above the size from which memory is kept
    const auto short_row = row_with_text<db_conn_server_log>("s");
    for (const char letter : {'l', 's'}) {
        const size_t length = letter == 'l' ? 1000 : 1;
        auto row = row_with_text<db_conn_server_log>(std::string(length, letter));
        for (int64_t n = 0; n < rows; ++n) ASSERT_EQ(add_conn_server_log(&row), 0);
    }
    for (int repeated = 0; repeated < 2; ++repeated) {
        const auto earlier = read(list_conn_server_log, page(0, rows));
        ASSERT_TRUE(earlier);
        EXPECT_EQ(earlier->rows.front().username[999], 'l');
        const auto later = read(list_conn_server_log, page(rows, rows));
        ASSERT_TRUE(later);
        ASSERT_EQ(later->rows.size(), static_cast<size_t>(rows));
        for (db_conn_server_log got : later->rows) {
            got.id = 0;
            ASSERT_TRUE(bytes_of(got) == bytes_of(short_row));
        }
    }
}

// Pages of memory that the system has given a process until now.
long pages_given_to(pid_t pid) {
    const std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));
    std::string field;
    for (int n = 0; n < 8; ++n) fields >> field;  // of proc_pid_stat(5), minflt is the tenth
    return std::stol(field);
}

TEST_F(e2e_client, page_of_the_usual_size_takes_no_new_memory) {
    constexpr int64_t rows = 200;  // 254 pages of 4 KiB, too few for a large one
    auto row = row_with_text<db_conn_server_log>("x");
    for (int64_t n = 0; n < rows; ++n) ASSERT_EQ(add_conn_server_log(&row), 0);
    for (int n = 0; n < 3; ++n) ASSERT_TRUE(read(list_conn_server_log, page(0, rows)));
    const long before = pages_given_to(daemon.pid());
    for (int n = 0; n < 3; ++n) ASSERT_TRUE(read(list_conn_server_log, page(0, rows)));
    EXPECT_LT(pages_given_to(daemon.pid()) - before, 600) << "new memory would be 762 and more";
}

TEST_F(e2e_client, c11_program_records_and_lists) { EXPECT_EQ(run_process({CLIENT_C11}), 0); }

// --- Names --------------------------------------------------------------------------------------

TEST_F(e2e_client, every_method_is_answered_by_its_name) {
    for (const method& m : methods) {
        const answer got = call(m.name, std::string(m.record, '\0'));
        if (std::string(m.name) == "db_event_query") {
            EXPECT_EQ(got.result, ZB_ERROR_NO_REPLY) << "the table is never created";
            continue;
        }
        EXPECT_EQ(got.result, 0) << m.name;
        EXPECT_EQ(got.reply.size(), m.is_query ? 24U : 0U) << m.name;
    }
}

// "At once" is well below the five seconds of a single time-out, for all of them together.
TEST_F(e2e_client, unanswered_callers_learn_it_at_once) {
    strings names = {
        "db_event_del", "db_event_clean",  "DB_EVENT_QUERY",      "db_conn_server_log_insert",
        "nothing",      "db_event_query ", std::string(255, 'x'), "%s%n"};
    for (const method& m : methods) {
        std::string upper;
        for (const char* c = m.name; *c != '\0'; ++c) {
            upper += static_cast<char>(std::toupper(static_cast<unsigned char>(*c)));
        }
        names.push_back(upper);
        names.push_back(std::string(m.name) + "_");
    }
    const auto start = std::chrono::steady_clock::now();
    for (const std::string& name : names) {
        EXPECT_EQ(call(name, std::string(8000, '\0')).result, ZB_ERROR_NO_REPLY) << name;
    }
    for (const method& m : methods) {
        if (m.record == 0) continue;
        EXPECT_EQ(call(m.name, std::string(m.record - 1, '\0')).result, ZB_ERROR_NO_REPLY)
            << m.name;
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));
    expect_serving(0);
}

// --- Bad input ----------------------------------------------------------------------------------

TEST_F(e2e_client, short_requests_are_refused_and_long_ones_used) {
    for (const method& m : methods) {
        if (m.record == 0) continue;
        for (const size_t length : {size_t{0}, size_t{1}, size_t{7}, m.record / 2, m.record - 1}) {
            EXPECT_EQ(call(m.name, std::string(length, '\xff')).result, ZB_ERROR_NO_REPLY)
                << m.name << " " << length;
        }
    }
    expect_serving(0);
    auto row = row_with_text<db_conn_server_log>("long");
    EXPECT_EQ(call("db_conn_insert", bytes_of(row) + std::string(1 << 20, '\xff')).result, 0);
    const auto got = read(list_conn_server_log, page(0, -1));
    ASSERT_TRUE(got && got->rows.size() == 1);
    row.id = 1;
    EXPECT_TRUE(bytes_of(got->rows[0]) == bytes_of(row));
}

TEST_F(e2e_client, texts_without_a_nul_are_cut) {
    db_conn_server_log server_row;
    memset(&server_row, 0xff, sizeof server_row);
    EXPECT_EQ(add_conn_server_log(&server_row), 0);
    const auto server_rows = read(list_conn_server_log, page(0, -1));
    ASSERT_TRUE(server_rows && server_rows->rows.size() == 1);
    EXPECT_EQ(server_rows->rows[0].outgoing, std::string(1024, '\xff'));
    EXPECT_EQ(server_rows->rows[0].vpn_type, -1);

    db_conn_client_log_data client_row;
    memset(&client_row, '\'', sizeof client_row);
    EXPECT_EQ(add_conn_client_log(&client_row), 0);
    const auto client_rows = read(list_conn_client_log, page(0, -1));
    ASSERT_TRUE(client_rows && client_rows->rows.size() == 1);
    EXPECT_EQ(client_rows->rows[0].country_code, std::string("''"));
    EXPECT_EQ(client_rows->rows[0].wan_ip, std::string(1024, '\''));

    db_server_list_data server;
    memset(&server, '%', sizeof server);
    EXPECT_EQ(add_server_list(&server), 0);
    const auto servers = read(list_server_list, page(0, -1));
    ASSERT_TRUE(servers && servers->rows.size() == 1);
    EXPECT_EQ(servers->rows[0].device_name, std::string(1023, '%'));
}

TEST_F(e2e_client, condition_without_a_nul_is_a_failed_page) {
    auto row = row_with_text<db_conn_server_log>("x");
    ASSERT_EQ(add_conn_server_log(&row), 0);
    db_query_cond cond = page(0, -1);
    memset(cond.field, 'x', sizeof cond.field);
    memset(cond.value, '\'', sizeof cond.value);
    const auto got = read(list_conn_server_log, cond);
    ASSERT_TRUE(got);
    EXPECT_EQ(got->rows.size(), 0U);
    EXPECT_EQ(got->total, 1U);
    EXPECT_NE(read_file(log_path).find("no such column: " + std::string(1024, 'x')),
              std::string::npos);
}

TEST_F(e2e_client, hostile_filters_change_nothing) {
    for (const char* name : {"anna", "bert"}) {
        auto row = row_with_text<db_conn_server_log>(name);
        ASSERT_EQ(add_conn_server_log(&row), 0);
        auto client_row = row_with_text<db_conn_client_log_data>(name);
        ASSERT_EQ(add_conn_client_log(&client_row), 0);
    }
    const strings fields = {
        "1=1; DROP TABLE conn_server_log; --",
        "1=1; DELETE FROM conn_server_log; --",
        "1=1; DELETE FROM conn_client_log; --",
        "1=1; UPDATE conn_server_log SET username = 1; --",
        "1=1; INSERT INTO conn_server_log (id) VALUES (99); --",
        "1=1; CREATE TABLE more (x); --",
        "1=1; PRAGMA writable_schema = 1; --",
        "1=1; PRAGMA query_only = 1; --",
        "1=1; ATTACH DATABASE char(47,116,109,112,47,120) AS y; --",
        "1=1; VACUUM INTO char(47,116,109,112,47,120); --",
        "1=1; BEGIN EXCLUSIVE; --",
        "1=1; COMMIT; --",
        "(SELECT sql FROM sqlite_master)",
        "(SELECT username FROM conn_client_log)",
        "1 UNION SELECT * FROM conn_client_log; --",
        "load_extension(char(47))",
        "length(zeroblob(999999999))",
        "length(hex(randomblob(999999999)))",
        "writefile(1, 2)",
        "username",
        "' OR 1=1 OR username",
        "\" OR 1=1 OR username",
        "1=1 OR username",
        "/*",
        "--",
        ";",
        "%s%s%n",
        "\xff\xfe",
        std::string(1024, '('),
        std::string(1024, '-'),
    };
    for (const std::string& field : fields) {
        for (const char* value : {"x", "' OR 1=1 --", "%n'\""}) {
            SCOPED_TRACE(field.substr(0, 60) + " = " + value);
            (void)read(list_conn_server_log, filtered(field, value));
            const auto got = read(list_conn_server_log, page(0, -1));
            ASSERT_TRUE(got);
            ASSERT_EQ(got->rows.size(), 2U);
            EXPECT_STREQ(got->rows[0].username, "anna");
            EXPECT_STREQ(got->rows[1].username, "bert");
            EXPECT_EQ(total(list_conn_client_log), 2U);
        }
    }
    EXPECT_NE(access("/tmp/x", F_OK), 0);
    auto row = row_with_text<db_conn_server_log>("still writable");
    EXPECT_EQ(add_conn_server_log(&row), 0);
    expect_serving(3);
}

TEST_F(e2e_client, filter_value_matches_itself_alone) {
    const strings names = {"anna", "' OR '1'='1", "%", "_", "a\"b"};
    for (const std::string& name : names) {
        auto row = row_with_text<db_conn_server_log>(name);
        ASSERT_EQ(add_conn_server_log(&row), 0);
    }
    for (const std::string& name : names) {
        const auto got = read(list_conn_server_log, filtered("username", name));
        ASSERT_TRUE(got);
        ASSERT_EQ(got->rows.size(), 1U) << name;
        EXPECT_EQ(got->rows[0].username, name);
    }
}

TEST_F(e2e_client, hostile_filter_on_the_server_list_leaves_a_daemon_that_answers) {
    auto server = row_with_text<db_server_list_data>("x");
    ASSERT_EQ(add_server_list(&server), 0);
    const auto got = read(list_server_list, filtered("1=1; DROP TABLE server_list; --", "x"));
    ASSERT_TRUE(got);
    EXPECT_EQ(got->total, UINT64_MAX) << "the temporary table goes with its connection";
    EXPECT_EQ(add_server_list(&server), 0);
    EXPECT_EQ(clean_server_list(), 0);
    expect_serving(0);
}

TEST_F(e2e_client, pages_out_of_all_bounds_are_contained) {
    auto row = row_with_text<db_conn_server_log>("x");
    ASSERT_EQ(add_conn_server_log(&row), 0);
    const int64_t odd[] = {INT64_MIN, -2, -1, 0, 1, 100001, int64_t{1} << 32, INT64_MAX};
    for (const int64_t start : odd) {
        for (const int64_t count : odd) {
            const auto got = read(list_conn_server_log, page(start, count));
            ASSERT_TRUE(got) << start << " " << count;
            EXPECT_EQ(got->rows.size(), start <= 0 && count != 0 ? 1U : 0U)
                << start << " " << count;
        }
    }
    for (const int64_t order_by : odd) {
        db_query_cond cond = page(0, -1);
        cond.order_by = order_by;
        EXPECT_EQ(read(list_conn_server_log, cond).has_value(), order_by == 0 || order_by == 1);
    }
    expect_serving(1);
}

TEST_F(e2e_client, half_frames_harm_nobody) {
    const std::string whole = frame("db_conn_insert", 5200, std::string(5200, '\0'));
    std::vector<std::unique_ptr<half_frame>> open_frames;
    for (const size_t length : {0U, 1U, 4U, 8U, 15U, 16U, 17U, 29U, 30U, 31U, 2000U, 5229U}) {
        half_frame closed(whole.substr(0, length));
        open_frames.push_back(std::make_unique<half_frame>(whole.substr(0, length)));
        expect_serving(0);
    }
    auto row = row_with_text<db_conn_server_log>("x");
    EXPECT_EQ(add_conn_server_log(&row), 0);
    open_frames.clear();
    expect_serving(1);
}

TEST_F(e2e_client, frames_of_nonsense_harm_nobody) {
    std::string wrong_version = frame("db_event_insert", 0, "");
    wrong_version[4] = 9;
    const strings all = {
        std::string(64, '\xff'),
        "GET / HTTP/1.1\r\n\r\n",
        wrong_version,
        frame("", 0, ""),
        frame("db_event_insert", UINT64_MAX, "x"),
        frame("db_event_insert", uint64_t{1} << 40, "x"),
        frame(std::string(60000, 'x'), 0, ""),
    };
    for (const std::string& bytes : all) {
        const half_frame sent(bytes);
        expect_serving(0);
    }
}

TEST_F(e2e_client, descriptor_with_a_request_is_closed_also_for_unknown_names) {
    for (const char* name :
         {"db_event_insert", "db_event_query", "db_event_del", "DB_EVENT_QUERY"}) {
        int ends[2];
        ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
        (void)call(name, "", ends[1]);
        close(ends[1]);
        pollfd reading = {ends[0], POLLIN, 0};
        EXPECT_EQ(poll(&reading, 1, 5000), 1) << name << ": nobody else holds the writing end";
        EXPECT_NE(reading.revents & POLLHUP, 0);
        close(ends[0]);
    }
}

// --- Callers ------------------------------------------------------------------------------------

TEST_F(e2e_client, many_threads_call_at_once) {
    constexpr size_t thread_count = 8;
    constexpr size_t rounds = 25;
    std::atomic<int> failures = 0;
    const auto work = [&failures](size_t number) {
        for (size_t n = 0; n < rounds; ++n) {
            auto row = row_with_text<db_conn_server_log>("thread " + std::to_string(number));
            row.vpn_type = static_cast<int32_t>(n);
            if (add_conn_server_log(&row) != 0) ++failures;
            const auto got = read(list_conn_server_log,
                                  filtered("username", "thread " + std::to_string(number)));
            if (!got || got->rows.size() != n + 1) ++failures;
            if (call("unknown", "").result != ZB_ERROR_NO_REPLY) ++failures;
        }
    };
    std::vector<std::thread> threads;
    threads.reserve(thread_count);
    for (size_t number = 0; number < thread_count; ++number) threads.emplace_back(work, number);
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(total(list_conn_server_log), thread_count * rounds);
}

TEST_F(e2e_client, stopped_daemon_fails_writes_and_leaves_list_headers) {
    EXPECT_EQ(daemon.stop(), 0);
    auto server = row_with_text<db_server_list_data>("x");
    EXPECT_EQ(add_server_list(&server), ZB_ERROR_UNREACHABLE);
    EXPECT_EQ(clean_conn_server_log(), ZB_ERROR_UNREACHABLE);
    db_server_list_data mark = {};
    db_server_list_query header = {11, 22, &mark};
    db_server_list_query* pointer = &header;
    db_query_cond cond = page(0, -1);
    EXPECT_EQ(list_server_list(&cond, &pointer), 0);
    EXPECT_EQ(header.count, 11U);
    EXPECT_EQ(header.total, 22U);
    EXPECT_EQ(header.data, &mark);
    EXPECT_EQ(read_file(log_path).find("ravo_api_db"), std::string::npos);
}
