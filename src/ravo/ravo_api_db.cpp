// The client functions of the table methods: a worker for each pattern, a line for each call.

#include "ravo_api_db.h"

// The assertion below is the library's promise to its callers, in every build.
#undef NDEBUG
#include <cassert>

#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "ravo_api.h"
#include "ravo_log.h"

namespace ravo_api {

namespace {
constexpr char endpoint[] = "@/var/run/ravod.sock";
constexpr int timeout_seconds = 5;
}  // namespace

io_buffer create_io() {
    zb_io* io = zb_io_create();
    assert(io != NULL);  // NOLINT(modernize-use-nullptr): the message names it so
    return io_buffer(io);
}

int call(const io_buffer& io, const char* method, const void* payload, size_t size) {
    if (size != 0 && zb_io_write(io.get(), payload, size) != 0) return ZB_ERROR_MEMORY;
    return zb_call(endpoint, method, io.get(), timeout_seconds, -1);
}

}  // namespace ravo_api

namespace {

using ravo_api::call;
using ravo_api::create_io;
using ravo_api::io_buffer;

int send(const char* method) { return call(create_io(), method, nullptr, 0); }

template <class Record>
int send(const char* method, const Record* record) {
    return call(create_io(), method, record, sizeof *record);
}

int send_name(const char* method, const char* username) {
    return call(create_io(), method, username, strlen(username));
}

// Unpacks a query's reply into the caller's header. Returns false, with the header untouched, when
// the reply is shorter than it says or there is no memory for its rows.
template <class Query>
bool unpack_rows(zb_io* io, Query& result) {
    using row = std::remove_pointer_t<decltype(result.data)>;
    size_t length = 0;
    const auto* reply = static_cast<const char*>(zb_io_read(io, &length));
    if (reply == nullptr || length < sizeof result) return false;
    Query header;
    memcpy(&header, reply, sizeof header);
    if (header.count > (length - sizeof header) / sizeof(row)) return false;
    header.data = static_cast<row*>(calloc(header.count, sizeof(row)));
    if (header.data == nullptr && header.count != 0) return false;
    if (header.count != 0) {
        memcpy(header.data, reply + sizeof header, header.count * sizeof(row));
    }
    result = header;
    return true;
}

// Returns the call's result. A call that failed leaves the caller's header untouched.
template <class Query>
int try_list(const char* method, const db_query_cond* cond, Query** result) {
    const io_buffer io = create_io();
    const int status = call(io, method, cond, sizeof *cond);
    if (status != 0) return status;
    return unpack_rows(io.get(), **result) ? 0 : ZB_ERROR_PROTOCOL;
}

// Deliberate: returns 0 whatever happened.
template <class Query>
int list(const char* method, const db_query_cond* cond, Query** result) {
    (void)try_list(method, cond, result);
    return 0;
}

}  // namespace

int add_conn_server_log(db_conn_server_log* con_data) { return send("db_conn_insert", con_data); }
int list_conn_server_log(db_query_cond* cond, db_conn_server_log_query** connect_query) {
    return list("db_conn_server_log_query", cond, connect_query);
}
int delete_conn_server_log(db_delete_cond* cond) { return send("db_conn_server_log_del", cond); }
int clean_conn_server_log(void) { return send("db_conn_server_log_clean"); }

int add_conn_client_log(db_conn_client_log_data* con_data) {
    return send("db_conn_client_log_insert", con_data);
}
int list_conn_client_log(db_query_cond* cond, db_conn_client_log_query** connect_query) {
    return list("db_conn_client_log_query", cond, connect_query);
}
int delete_conn_client_log(db_delete_cond* cond) { return send("db_conn_client_log_del", cond); }
int clean_conn_client_log(void) { return send("db_conn_client_log_clean"); }

int add_event_data(db_event_data* data) { return send("db_event_insert", data); }
int list_event_data(db_query_cond* cond, db_event_query** query) {
    return list("db_event_query", cond, query);
}

int add_server_list(db_server_list_data* data) { return send("db_server_list_insert", data); }
int list_server_list(db_query_cond* cond, db_server_list_query** query) {
    return list("db_server_list_query", cond, query);
}
int delete_server_list(db_delete_cond* cond) { return send("db_server_list_del", cond); }
int clean_server_list(void) { return send("db_server_list_clean"); }

int add_device_info(db_device_info_data* data, ravo_mobile_gen_uuid_data_get* get_data) {
    const io_buffer io = create_io();
    const int status = call(io, "db_device_info_insert", data, sizeof *data);
    if (status != 0) return status;
    const auto* uuid = static_cast<const char*>(zb_io_read(io.get(), nullptr));
    const size_t length = strnlen(uuid, sizeof get_data->ravo_uuid - 1);
    memcpy(get_data->ravo_uuid, uuid, length);
    get_data->ravo_uuid[length] = '\0';
    return 0;
}
int list_device_info(db_query_cond* cond, db_device_info_query** query) {
    return list("db_device_info_query", cond, query);
}
int delete_device_info(db_delete_cond* cond) { return send("db_device_info_del", cond); }
int clean_device_info(void) { return send("db_device_info_clean"); }

int add_privilege_user_block(char* username) {
    return send_name("db_privilege_user_block_insert", username);
}
int list_privilege_user_block(db_query_cond* cond, db_privilege_user_block_query** block_query) {
    const int ret = try_list("db_privilege_user_block_query", cond, block_query);
    if (ret != 0) log_line(HERE, "ERROR", "zbsh list_privilege_user_block, ret=%d\n", ret);
    return 0;
}
int delete_privilege_user_block(char* username) {
    return send_name("db_privilege_user_block_del", username);
}
int check_privilege_user_block(char* username) {
    const io_buffer io = create_io();
    const int ret = call(io, "db_privilege_user_block_check", username, strlen(username));
    if (ret != 0) {
        log_line(HERE, "ERROR", "zbsh check_privilege_user_block, ret=%d\n", ret);
        return ret;
    }
    const auto* reply = static_cast<const char*>(zb_io_read(io.get(), nullptr));
    return strcmp(reply, "1") == 0 ? 1 : 0;  // "0", "-1" and any other text: not blocked
}
int clean_privilege_user_block(void) { return send("db_privilege_user_block_clean"); }
