// The handlers of all methods over the store: a request is answered whole or not at all, what only
// asks changes nothing, and what writes changes no table but its own.
//
// Input: a byte for the settings service's reply; then requests, each a byte for the method, a byte
// that says how its payload is made, and texts for it.
#include <climits>
#include <cstring>
#include <map>

#include "fuzz_target.h"
#include "store_world.h"

namespace {

using store_world::answer;

constexpr int max_requests = 6;

constexpr const char* settings_replies[] = {
    R"({"error": 0, "data": {"global": {"enable": true, "limit": 2, "time": 5}}})",
    R"({"error": 0, "data": {"global": {"enable": true, "limit": 1, "time": 0}}})",
    R"({"error": 0, "data": {"global": {"enable": true, "limit": 0, "time": 1e308}}})",
    R"({"error": 0, "data": {"global": {"enable": false}}})",
    R"({"error": 0, "data": []})",
    "",
};

enum class reply_kind { empty, rows, uuid, check };

struct method {
    const char* name;
    size_t record;      // bytes of the request's record; 0: any length will do
    const char* table;  // that it may change; null: none
    reply_kind reply;
    size_t row = 0;
};
constexpr method methods[] = {
    {"db_conn_insert", 5200, "conn_server_log", reply_kind::empty},
    {"db_conn_server_log_query", 2088, nullptr, reply_kind::rows, 5200},
    {"db_conn_server_log_clean", 0, "conn_server_log", reply_kind::empty},
    {"db_conn_server_log_del", 8, "conn_server_log", reply_kind::empty},
    {"db_conn_client_log_insert", 3152, "conn_client_log", reply_kind::empty},
    {"db_conn_client_log_query", 2088, nullptr, reply_kind::rows, 3152},
    {"db_conn_client_log_clean", 0, "conn_client_log", reply_kind::empty},
    {"db_conn_client_log_del", 8, "conn_client_log", reply_kind::empty},
    {"db_event_insert", 0, nullptr, reply_kind::empty},
    {"db_event_query", 2088, nullptr, reply_kind::rows, 1},
    {"db_server_list_insert", 4128, nullptr, reply_kind::empty},
    {"db_server_list_query", 2088, nullptr, reply_kind::rows, 4128},
    {"db_server_list_del", 8, nullptr, reply_kind::empty},
    {"db_server_list_clean", 0, nullptr, reply_kind::empty},
    {"db_device_info_insert", 7192, nullptr, reply_kind::uuid},
    {"db_device_info_query", 2088, nullptr, reply_kind::rows, 7192},
    {"db_device_info_del", 8, nullptr, reply_kind::empty},
    {"db_device_info_clean", 0, nullptr, reply_kind::empty},
    {"ravo_mobile_gen_ravo_uuid", 0, nullptr, reply_kind::uuid},
    {"db_privilege_user_block_insert", 0, "privilege_user_block", reply_kind::empty},
    {"db_privilege_user_block_query", 2088, nullptr, reply_kind::rows, 1048},
    {"db_privilege_user_block_del", 0, "privilege_user_block", reply_kind::empty},
    {"db_privilege_user_block_clean", 0, "privilege_user_block", reply_kind::empty},
    {"db_privilege_user_block_check", 0, "privilege_user_block", reply_kind::check},
};

// --- Requests ------------------------------------------------------------------------------------

db_query_cond condition(fuzz::input& in) {
    constexpr int64_t numbers[] = {0, 1, -1, 2, 5, 13, 100000, 100001, -2, INT64_MAX, INT64_MIN};
    const auto number = [&] { return numbers[in.below(std::size(numbers))]; };
    db_query_cond cond = {};
    cond.start = number();
    cond.count = number();
    cond.order_by = in.below(16);
    cond.order_style = in.below(2);
    in.line().copy(cond.field, sizeof cond.field);
    in.line().copy(cond.value, sizeof cond.value);
    return cond;
}

// A record with a text here and there.
std::string record(size_t size, fuzz::input& in) {
    std::string bytes(size, '\0');
    for (int texts = in.below(8); texts > 0; --texts) {
        const size_t at = in.number<uint16_t>() % size;
        const std::string text = in.line();
        bytes.replace(at, std::min(text.size(), size - at), text, 0, size - at);
    }
    return bytes;
}

std::string payload_for(const method& m, fuzz::input& in) {
    const uint8_t way = in.below(4);
    if (way == 0) return in.text();
    if (m.record == 0) return in.line();
    if (m.record == sizeof(db_delete_cond)) {
        const db_delete_cond cond = {way == 1 ? in.below(4) : in.number<int64_t>()};
        return std::string(store_world::bytes_of(cond));
    }
    if (m.reply == reply_kind::rows) return std::string(store_world::bytes_of(condition(in)));
    return record(m.record, in);
}

// --- Promises ------------------------------------------------------------------------------------

void expect_rows(const std::string& reply, size_t row) {
    uint64_t header[2] = {};
    fuzz::expect(reply.size() >= 24, "a reply with rows has its header");
    memcpy(header, reply.data(), sizeof header);
    fuzz::expect(header[0] <= static_cast<uint64_t>(visible_rows), "no more rows than a page has");
    fuzz::expect(reply.size() == 24 + header[0] * row, "the rows are those that were counted");
    fuzz::expect(header[1] <= static_cast<uint64_t>(visible_rows) || header[1] == UINT64_MAX,
                 "the total is capped");
}

void expect_reply(const method& m, const answer& got, size_t payload) {
    if (payload < m.record) {
        fuzz::expect(!got.replied, "a request that is too short is not answered");
        return;
    }
    if (!got.replied) {
        fuzz::expect(m.reply == reply_kind::rows, "only a query may be refused");
        return;
    }
    switch (m.reply) {
        case reply_kind::empty:
            fuzz::expect(got.bytes.empty(), "an acknowledgement is empty");
            break;
        case reply_kind::rows:
            expect_rows(got.bytes, m.row);
            break;
        case reply_kind::uuid:
            fuzz::expect(got.bytes.size() == 36, "a UUID has 36 bytes");
            break;
        case reply_kind::check:
            fuzz::expect(got.bytes == "0" || got.bytes == "1" || got.bytes == "-1",
                         "a check says yes, no or nothing");
            break;
    }
}

// The rows of each table in the file.
std::map<std::string, std::vector<std::string>> rows() {
    std::map<std::string, std::vector<std::string>> all;
    for (const store_world::table_info& table : store_world::tables) {
        if (table.temporary) continue;
        all[table.name] =
            store_world::run(std::string("SELECT id || ' ' || quote(username) FROM ") + table.name);
    }
    return all;
}

void send_request(fuzz::input& in) {
    const uint8_t index = in.below(std::size(methods) + 1);
    if (index == std::size(methods)) {
        (void)store_world::ask(in.line(), in.line());
        return;
    }
    const method& m = methods[index];
    const std::string payload = payload_for(m, in);
    const std::string file = fuzz::get_file(database_path);
    const auto before = rows();
    expect_reply(m, store_world::ask(m.name, payload), payload.size());
    if (m.table == nullptr || payload.size() < m.record) {
        fuzz::expect(fuzz::get_file(database_path) == file, "the file is left as it is");
        return;
    }
    auto after = rows();
    after[m.table] = before.at(m.table);
    fuzz::expect(after == before, "no other table changes");
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::input in(data, size);
    store_world::begin();
    store_world::settings = settings_replies[in.below(std::size(settings_replies))];
    for (int n = 0; n < max_requests && !in.is_empty(); ++n) send_request(in);
    fuzz::expect(store_world::run("PRAGMA quick_check") == std::vector<std::string>{"ok"},
                 "the file is sound");
    return 0;
}
