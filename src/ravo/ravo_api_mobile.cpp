// The client function of the UUID method.
#include <cstring>

#include "ravo_api.h"
#include "ravo_api_db.h"

// Deliberate: returns 0 whatever happened. A call that failed leaves the caller's record untouched.
int ravo_mobile_gen_ravo_uuid(ravo_mobile_gen_uuid_data_set* set_datas,
                              ravo_mobile_gen_uuid_data_get** get_datas) {
    const ravo_api::io_buffer io = ravo_api::create_io();
    if (ravo_api::call(io, "ravo_mobile_gen_ravo_uuid", set_datas, sizeof *set_datas) != 0)
        return 0;
    size_t length = 0;
    const void* reply = zb_io_read(io.get(), &length);
    if (length >= sizeof **get_datas) memcpy(*get_datas, reply, sizeof **get_datas);
    return 0;
}
