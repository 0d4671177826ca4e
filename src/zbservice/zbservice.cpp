// The C interface. What each function promises stands in zbservice.h; here arguments are checked
// and the rest is handed on. Nothing in this library throws: memory is asked for in ways that
// return.
#include "zbservice.h"

#include <cerrno>
#include <cstdlib>
#include <new>

#include "call.h"
#include "payload.h"
#include "peer.h"
#include "report.h"
#include "service.h"
#include "signals.h"

const char* zb_strerror(int error) {
    switch (error) {
        case ZB_OK:
            return "success";
        case ZB_ERROR_ARGUMENT:
            return "bad argument";
        case ZB_ERROR_MEMORY:
            return "out of memory";
        case ZB_ERROR_UNREACHABLE:
            return "nobody serves this address";
        case ZB_ERROR_DENIED:
            return "the service does not accept calls of this user";
        case ZB_ERROR_UNTRUSTED:
            return "the address is held by a user who is not trusted";
        case ZB_ERROR_TOO_LARGE:
            return "request or reply too large";
        case ZB_ERROR_TIMEOUT:
            return "timed out";
        case ZB_ERROR_NO_REPLY:
            return "the request was not answered";
        case ZB_ERROR_PROTOCOL:
            return "not understood: the other side speaks another protocol";
        case ZB_ERROR_BROKEN:
            return "the service closed the connection";
        case ZB_ERROR_BUSY:
            return "the service is too busy";
        case ZB_ERROR_SYSTEM:
            return "system error";
        default:
            return "unknown error";
    }
}

// ---- Payload buffers ---------------------------------------------------------------------------

zb_io* zb_io_create(void) { return new (std::nothrow) zb_io; }

int zb_io_write(zb_io* io, const void* data, size_t length) {
    if (!io || (!data && length > 0)) return -1;
    return io->content.append(data, length) ? 0 : -1;
}

void* zb_io_read(zb_io* io, size_t* length) {
    if (length) *length = io ? io->content.size() : 0;
    return io ? io->content.data() : nullptr;
}

int zb_io_realloc(zb_io* io, size_t length) { return io && io->content.resize(length) ? 0 : -1; }

void zb_io_free(zb_io* io) {
    if (io && io->request) io->request->io = nullptr;  // the bus has nothing left to reclaim
    delete io;
}

int zb_io_adopt(zb_io* io, void* block, size_t length, void (*release)(void*)) {
    if (!io || !io->request || (!block && length > 0)) return -1;
    return io->content.attach(block, length, release ? release : std::free) ? 0 : -1;
}

// ---- Calling -----------------------------------------------------------------------------------

int zb_call(const char* path, const char* method, zb_io* io, int timeout_s, int fd) {
    if (!io || io->content.attached()) return ZB_ERROR_ARGUMENT;
    return zb::call(path, method, *io, timeout_s, fd);
}

int zb_call_into(const char* path, const char* method, zb_io* io, int timeout_s, int fd,
                 size_t head_length, zb_place_fn place, void* arg) {
    if (!io || !place) return ZB_ERROR_ARGUMENT;
    const zb::reply_place behind_head{head_length, place, arg};
    io->content.place_of_reply = &behind_head;
    const int result = zb_call(path, method, io, timeout_s, fd);
    io->content.place_of_reply = nullptr;
    return result;
}

// ---- Serving -----------------------------------------------------------------------------------

zb_service* zb_create(const char* path, int setting1, int setting2, zb_entry entry) {
    (void)setting1;
    (void)setting2;
    zb_service* service = nullptr;
    if (!entry) {
        zb::report("cannot create endpoint \"%s\": no entry", path ? path : "(null)");
    } else if (service = new (std::nothrow) zb_service(entry, zb::deployment_group()); !service) {
        zb::report("cannot create endpoint \"%s\": out of memory", path ? path : "(null)");
    } else if (!service->listen(path)) {
        delete service;
        service = nullptr;
    }
    zb::deliver_signals();
    return service;
}

int zb_start(zb_service* service) {
    if (service) return service->serve();
    zb::deliver_signals();
    return -1;
}

int zb_stop(zb_service* service) {
    if (!service) return -1;
    service->stop();
    return 0;
}

void zb_free(zb_service* service) {
    if (service && service->is_serving()) {
        zb::report("an endpoint that is being served cannot be released");
        return;
    }
    delete service;
}

int zb_reply(zb_io* io) {
    if (!io || !io->request) return -1;
    return io->request->service->reply(*io->request);
}

// ---- Signals -----------------------------------------------------------------------------------

int zb_signal(int sig, zb_signal_fn fn) { return zb::set_signal_function(sig, fn); }
