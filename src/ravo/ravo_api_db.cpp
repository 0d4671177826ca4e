// The client functions of the table methods: a worker for each pattern, a line for each call.

#include "ravo_api_db.h"

// The assertion below is the library's promise to its callers, in every build.
#undef NDEBUG
#include <cassert>

#include <cstdlib>
#include <cstring>
#include <type_traits>
#include <utility>

#include "large_pages.h"
#include "optional_bus.h"
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

// Like call(). A bus that can receives what is behind the head to its place; any other one's reply
// is in io as a whole.
static int call_into(const io_buffer& io, const char* method, const void* payload, size_t size,
                     size_t head, zb_place_fn place, void* arg) {
    static const bool can_call_into = is_from_library_of(zb_call_into, zb_call);
    if (!can_call_into) return call(io, method, payload, size);
    if (zb_io_write(io.get(), payload, size) != 0) return ZB_ERROR_MEMORY;
    return zb_call_into(endpoint, method, io.get(), timeout_seconds, -1, head, place, arg);
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

// A query's reply: received to its array, or unpacked into it.
template <class Query>
class reply_rows {
  public:
    using row = std::remove_pointer_t<decltype(Query::data)>;

    reply_rows() = default;
    ~reply_rows() { free(array_); }
    reply_rows(const reply_rows&) = delete;
    reply_rows& operator=(const reply_rows&) = delete;

    // zb_call_into()'s question. The array has room for all that comes: a reply may be longer than
    // its header says.
    static void* place(void* arg, const void* header, size_t rest) {
        auto& self = *static_cast<reply_rows*>(arg);
        self.is_refused_ = !self.read_header(header, rest) ||
                           !self.make_array(rest / sizeof(row) + (rest % sizeof(row) != 0));
        return self.array_;
    }
    bool is_refused() const { return is_refused_; }

    // After the call. False: the reply is shorter than it says, or there is no memory for its rows.
    bool unpack(zb_io* io) {
        if (array_ != nullptr) return true;
        size_t length = 0;
        const auto* reply = static_cast<const char*>(zb_io_read(io, &length));
        if (reply == nullptr || length < sizeof header_) return false;
        if (!read_header(reply, length - sizeof header_) || !make_array(header_.count))
            return false;
        if (header_.count != 0) memcpy(array_, reply + sizeof header_, header_.count * sizeof(row));
        return true;
    }

    // The header with its array, which is the caller's from now on.
    Query take() {
        header_.data = static_cast<row*>(std::exchange(array_, nullptr));
        return header_;
    }

  private:
    bool read_header(const void* bytes, size_t rest) {
        memcpy(&header_, bytes, sizeof header_);
        return header_.count <= rest / sizeof(row);
    }
    bool make_array(size_t rows) {
        array_ = calloc(rows, sizeof(row));
        zb::use_large_pages(array_, rows * sizeof(row));
        return array_ != nullptr || rows == 0;
    }

    Query header_{};
    void* array_ = nullptr;
    bool is_refused_ = false;
};

// Returns the call's result. A call that failed leaves the caller's header untouched.
template <class Query>
int try_list(const char* method, const db_query_cond* cond, Query** result) {
    const io_buffer io = create_io();
    reply_rows<Query> rows;
    const int status = ravo_api::call_into(io, method, cond, sizeof *cond, sizeof(Query),
                                           reply_rows<Query>::place, &rows);
    if (rows.is_refused() || (status == 0 && !rows.unpack(io.get()))) return ZB_ERROR_PROTOCOL;
    if (status == 0) **result = rows.take();
    return status;
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
