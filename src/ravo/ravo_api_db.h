// What the client library's units share: one call of the daemon.
#ifndef RAVO_API_DB_H
#define RAVO_API_DB_H

#include <cstddef>
#include <memory>

#include "zbservice.h"

namespace ravo_api {

struct zb_io_deleter {
    void operator()(zb_io* io) const { zb_io_free(io); }
};
using io_buffer = std::unique_ptr<zb_io, zb_io_deleter>;

// A new, empty buffer. Aborts the process when there is none.
io_buffer create_io();

// Calls the daemon's method with the payload. Returns the bus's result; on 0 the reply is in io.
int call(const io_buffer& io, const char* method, const void* payload, size_t size);

}  // namespace ravo_api

#endif  // RAVO_API_DB_H
