// The method registry and the entry that the bus calls for each request.
#include "ravod_handler.h"

#include <unistd.h>

#include "ravod_db.h"
#include "ravod_mobile.h"
#include "spare_descriptors.h"

// The registry stands before any ordinary static object of the program is built: the map first, its
// entries next. Smaller priorities come first, and those up to 100 belong to the compiler.
[[gnu::init_priority(101)]] std::map<std::string, ravod_method, std::less<>> ravod_method_list;

namespace {

// The names are uneven on purpose: callers know the first one without its table's full name.
[[gnu::constructor(102)]] void ravo_method_init() {
    auto& list = ravod_method_list;
    list["db_conn_insert"] = db_conn_insert_handler;
    list["db_conn_server_log_query"] = db_conn_server_log_query_handler;
    list["db_conn_server_log_clean"] = db_conn_server_clean_handler;
    list["db_conn_server_log_del"] = db_conn_server_delete_handler;
    list["db_conn_client_log_insert"] = db_conn_client_log_insert_handler;
    list["db_conn_client_log_query"] = db_conn_client_log_query_handler;
    list["db_conn_client_log_clean"] = db_conn_client_clean_handler;
    list["db_conn_client_log_del"] = db_conn_client_delete_handler;
    list["db_event_insert"] = db_event_insert_handler;
    list["db_event_query"] = db_event_query_handler;
    list["db_server_list_insert"] = db_server_list_insert_handler;
    list["db_server_list_query"] = db_server_list_query_handler;
    list["db_server_list_del"] = db_server_list_delete_handler;
    list["db_server_list_clean"] = db_server_list_clean_handler;
    list["db_device_info_insert"] = db_device_info_insert_handler;
    list["db_device_info_query"] = db_device_info_query_handler;
    list["db_device_info_del"] = db_device_info_delete_handler;
    list["db_device_info_clean"] = db_device_info_clean_handler;
    list["ravo_mobile_gen_ravo_uuid"] = ravo_mobile_gen_ravo_uuid;
    list["db_privilege_user_block_insert"] = db_privilege_user_block_insert_handler;
    list["db_privilege_user_block_query"] = db_privilege_user_block_query_handler;
    list["db_privilege_user_block_del"] = db_privilege_user_block_delete_handler;
    list["db_privilege_user_block_clean"] = db_privilege_user_block_clean_handler;
    list["db_privilege_user_block_check"] = db_privilege_user_block_check_handler;
}

}  // namespace

void ravod_method_handler(const char* method, zb_io* io, int fd) {
    if (fd >= 0) close(fd);
    const auto entry = ravod_method_list.find(method);
    if (entry == ravod_method_list.end()) return;
    const spare_descriptors spare;
    if (entry->second(io) != 0) return;
    zb_io_free(io);
}
