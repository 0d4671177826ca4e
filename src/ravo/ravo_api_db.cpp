// The client functions of the table methods: a worker for each pattern, a line for each call.

// The assertion below is the library's promise to its callers, in every build.
#undef NDEBUG
#include <cassert>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <type_traits>

#include "ravo_api.h"
#include "zbservice.h"

namespace {

constexpr char endpoint[] = "@/var/run/ravod.sock";
constexpr int timeout_seconds = 5;

struct zb_io_deleter {
    void operator()(zb_io* io) const { zb_io_free(io); }
};
using io_buffer = std::unique_ptr<zb_io, zb_io_deleter>;

io_buffer create_io() {
    zb_io* io = zb_io_create();
    assert(io != NULL);  // NOLINT(modernize-use-nullptr): the message names it so
    return io_buffer(io);
}

// Calls the method with the payload. Returns the bus's result; on 0 the reply is in io.
int call(const io_buffer& io, const char* method, const void* payload, size_t size) {
    if (size != 0 && zb_io_write(io.get(), payload, size) != 0) return ZB_ERROR_MEMORY;
    return zb_call(endpoint, method, io.get(), timeout_seconds, -1);
}

int send(const char* method) { return call(create_io(), method, nullptr, 0); }

template <class Record>
int send(const char* method, const Record* record) {
    return call(create_io(), method, record, sizeof *record);
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

// Deliberate: returns 0 whatever happened. A call that failed leaves the caller's header untouched.
template <class Query>
int list(const char* method, const db_query_cond* cond, Query** result) {
    const io_buffer io = create_io();
    if (call(io, method, cond, sizeof *cond) == 0) (void)unpack_rows(io.get(), **result);
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
