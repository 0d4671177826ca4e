// The handlers of the table methods: a worker for each pattern, a line for each method.
#include "ravod_db.h"

#include <cstdlib>
#include <cstring>
#include <string>

#include "optional_bus.h"
#include "page_memory.h"
#include "ravo_records.h"
#include "ravod_db_conn_client_handler.h"
#include "ravod_db_device_info_handler.h"
#include "ravod_db_event_handler.h"
#include "ravod_db_handler.h"
#include "ravod_db_list_handler.h"
#include "ravod_db_privilege_user_block_handler.h"
#include "ravod_mobile.h"

namespace {

int refuse(zb_io* io) {
    zb_io_free(io);
    return -1;
}

// Ends a request: an empty reply when the store took it; no reply, and io released, when not.
int acknowledge(zb_io* io, int status) {
    if (status != 0) return refuse(io);
    zb_io_realloc(io, 0);
    zb_reply(io);
    return 0;
}

// Copies the request's record out of the buffer. False: the request is shorter than the record.
template <class Record>
bool read_record(zb_io* io, Record& record) {
    size_t length = 0;
    const void* payload = zb_io_read(io, &length);
    if (payload == nullptr || length < sizeof record) return false;
    memcpy(&record, payload, sizeof record);
    return true;
}

// An insert or a delete: the store function says which record the request is.
template <class Record>
int do_write(zb_io* io, int (*store)(Record*)) {
    Record record;
    if (!read_record(io, record)) return refuse(io);
    return acknowledge(io, store(&record));
}

// Appends a page's rows to the payload and releases them: handed over, or else copied.
bool append_rows(zb_io* io, void* block, size_t size) {
    static const bool can_adopt = is_from_library_of(zb_io_adopt, zb_reply);
    if (can_adopt && zb_io_adopt(io, block, size, release_page_block) == 0) return true;
    const bool written = size == 0 || zb_io_write(io, block, size) == 0;
    release_page_block(block);
    return written;
}

// Replies with a query's header as it lies in memory and its rows, and releases both. A reply that
// cannot be built is no reply.
template <class Query>
int reply_rows(zb_io* io, Query* result) {
    zb_io_realloc(io, 0);
    const bool has_header = zb_io_write(io, result, sizeof *result) == 0;
    const size_t size = result->count * sizeof *result->data;
    const bool built = has_header && append_rows(io, result->data, size);
    if (!has_header) release_page_block(result->data);
    if (built) zb_reply(io);
    free(result);
    return built ? 0 : refuse(io);
}

// A zero-filled header for a query's result; null when there is no memory. A function of its own,
// so that the leak below has a name of its own.
template <class Query>
Query* new_result() {
    return static_cast<Query*>(calloc(1, sizeof(Query)));
}

// The buffer's own bytes as a text: a zero byte follows every payload.
char* read_text(zb_io* io) { return static_cast<char*>(zb_io_read(io, nullptr)); }

// A write whose request is a user name.
int do_named(zb_io* io, int (*store)(char*)) { return acknowledge(io, store(read_text(io))); }

int reply_bytes(zb_io* io, const void* bytes, size_t size) {
    zb_io_realloc(io, 0);
    if (zb_io_write(io, bytes, size) != 0) return refuse(io);
    zb_reply(io);
    return 0;
}

template <class Query>
int do_query(zb_io* io, int (*select)(db_query_cond*, Query**)) {
    db_query_cond cond;
    if (!read_record(io, cond)) return refuse(io);
    auto* result = new_result<Query>();
    if (result == nullptr) return refuse(io);
    // Deliberate: a refused query leaks its 24-byte header.
    if (select(&cond, &result) != 0) return refuse(io);
    return reply_rows(io, result);
}

}  // namespace

int db_conn_insert_handler(zb_io* io) { return do_write(io, insert_conn_server_log); }
int db_conn_server_log_query_handler(zb_io* io) { return do_query(io, select_conn_server_log); }
int db_conn_server_clean_handler(zb_io* io) { return acknowledge(io, clean_conn_server_log()); }
int db_conn_server_delete_handler(zb_io* io) { return do_write(io, delete_conn_server_log); }

int db_conn_client_log_insert_handler(zb_io* io) { return do_write(io, insert_conn_client_log); }
int db_conn_client_log_query_handler(zb_io* io) { return do_query(io, select_conn_client_log); }
int db_conn_client_clean_handler(zb_io* io) { return acknowledge(io, clean_conn_client_log()); }
int db_conn_client_delete_handler(zb_io* io) { return do_write(io, delete_conn_client_log); }

// An event's content is never looked at, so a request of any length will do.
int db_event_insert_handler(zb_io* io) {
    (void)zb_io_read(io, nullptr);
    db_event_data event = {};
    return acknowledge(io, insert_event_data(&event));
}
int db_event_query_handler(zb_io* io) { return do_query(io, select_event_data); }

int db_server_list_insert_handler(zb_io* io) { return do_write(io, insert_server_list); }
int db_server_list_query_handler(zb_io* io) { return do_query(io, select_server_list); }
int db_server_list_delete_handler(zb_io* io) { return do_write(io, delete_server_list); }
int db_server_list_clean_handler(zb_io* io) { return acknowledge(io, clean_server_list()); }

namespace {

// Makes the UUID the one that the registry holds for the mac; an empty text when it holds none.
// Deliberate: an empty mac is looked up without a filter, which finds the oldest visible device.
int look_up_uuid(const db_device_info_data& device, ravo_mobile_gen_uuid_data_get& uuid) {
    db_query_cond cond = {};
    cond.count = 1;
    strcpy(cond.field, "mac");
    memcpy(cond.value, device.mac, sizeof cond.value);
    db_device_info_query found = {};
    db_device_info_query* result = &found;
    const int status = select_device_info(&cond, &result);
    uuid = {};
    if (found.count > 0) {
        const char* stored = found.data[0].dev_uuid;
        memcpy(uuid.ravo_uuid, stored, strnlen(stored, sizeof uuid.ravo_uuid - 1));
    }
    release_page_block(found.data);
    return status;
}

}  // namespace

int db_device_info_insert_handler(zb_io* io) {
    db_device_info_data device;
    if (!read_record(io, device)) return refuse(io);
    ravo_mobile_gen_uuid_data_get uuid = {};
    (void)ravo_uuid_gen(uuid.ravo_uuid);
    // Whatever the client has put there is never used.
    memset(device.dev_uuid, 0, sizeof device.dev_uuid);
    memcpy(device.dev_uuid, uuid.ravo_uuid, sizeof uuid.ravo_uuid);
    if (insert_device_info(&device) != 0) return refuse(io);
    if (look_up_uuid(device, uuid) != 0) return refuse(io);
    return reply_bytes(io, &uuid, sizeof uuid);
}
int db_device_info_query_handler(zb_io* io) { return do_query(io, select_device_info); }
int db_device_info_delete_handler(zb_io* io) { return do_write(io, delete_device_info); }
int db_device_info_clean_handler(zb_io* io) { return acknowledge(io, clean_device_info()); }

int db_privilege_user_block_insert_handler(zb_io* io) {
    return do_named(io, insert_privilege_user_block);
}
int db_privilege_user_block_query_handler(zb_io* io) {
    return do_query(io, select_privilege_user_block);
}
int db_privilege_user_block_delete_handler(zb_io* io) {
    return do_named(io, delete_privilege_user_block);
}
int db_privilege_user_block_clean_handler(zb_io* io) {
    return acknowledge(io, clean_privilege_user_block());
}
int db_privilege_user_block_check_handler(zb_io* io) {
    const std::string result = std::to_string(check_privilege_user_block(read_text(io)));
    return reply_bytes(io, result.data(), result.size());
}
