// The caller's reader of replies, through a whole call: whatever an endpoint sends, the call either
// has the whole payload that the frame announces, or fails and leaves the request as it was.
//
// The linker puts this program's functions in the place of the system calls by which the call gets
// its connection: it gets one end of a socket pair whose other end has said everything already.
//
// Input: a byte with the size of the pieces in which the reply arrives, then the reply.
#include <sys/socket.h>
#include <unistd.h>

#include "bounds.h"
#include "frames.h"
#include "fuzz_target.h"
#include "zbservice.h"

namespace {

constexpr std::string_view request = "the request";
constexpr size_t most_bytes = size_t{64} * 1024;  // what any socket takes at once

std::string_view the_reply;
size_t piece = 1;

// The caller's end of a connection to an endpoint that has sent its reply and hung up. A caller who
// is not understood has a second one.
int connect_to_reply() {
    const std::string_view reply = the_reply;
    int ends[2];
    fuzz::expect(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "a socket pair");
    fuzz::expect(reply.empty() || write(ends[1], reply.data(), reply.size()) ==
                                      static_cast<ssize_t>(reply.size()),
                 "the reply fits into the socket");
    (void)shutdown(ends[1], SHUT_WR);
    static int other_end = -1;
    if (other_end >= 0) close(other_end);
    other_end = ends[1];
    return ends[0];
}

// The error that a header's status stands for, in the order of the statuses.
int error_of(uint64_t status) {
    constexpr int errors[] = {ZB_OK,         ZB_ERROR_NO_REPLY, ZB_ERROR_DENIED, ZB_ERROR_TOO_LARGE,
                              ZB_ERROR_BUSY, ZB_ERROR_PROTOCOL, ZB_ERROR_BROKEN};
    return status < std::size(errors) ? errors[status] : ZB_ERROR_PROTOCOL;
}

// Whether a call may end so after this reply.
bool is_right(int result, std::string_view reply) {
    if (reply.size() < header_size) return result == ZB_ERROR_BROKEN;
    if (!is_header(reply, 2) && !is_header(reply, 2 | keep_flag))
        return result == ZB_ERROR_PROTOCOL;
    if (const int error = error_of(detail_of(reply))) return result == error;
    const uint64_t announced = length_of(reply);
    const size_t come = reply.size() - header_size;
    if (announced > zb::max_reply_bytes) return result == ZB_ERROR_TOO_LARGE;
    if (announced > come) return result == ZB_ERROR_BROKEN;
    // More than was announced is an error if it is seen.
    return result == ZB_OK || (announced < come && result == ZB_ERROR_PROTOCOL);
}

}  // namespace

extern "C" {
int __wrap_socket(int, int, int);
int __wrap_socket(int, int, int) { return connect_to_reply(); }
int __wrap_connect(int, const sockaddr*, socklen_t);
int __wrap_connect(int, const sockaddr*, socklen_t) { return 0; }
ssize_t __real_recv(int fd, void* room, size_t size, int flags);
ssize_t __wrap_recv(int fd, void* room, size_t size, int flags);
ssize_t __wrap_recv(int fd, void* room, size_t size, int flags) {
    return __real_recv(fd, room, std::min(size, piece), flags);
}
// The same function, as hardened builds name it.
ssize_t __wrap___recv_chk(int fd, void* room, size_t size, size_t room_size, int flags);
ssize_t __wrap___recv_chk(int fd, void* room, size_t size, size_t /*room_size*/, int flags) {
    return __wrap_recv(fd, room, size, flags);
}
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::input in(data, std::min(size, most_bytes));
    piece = size_t{1} + in.byte();
    const std::string reply = in.rest();
    the_reply = reply;
    zb_io* io = zb_io_create();
    fuzz::expect(zb_io_write(io, request.data(), request.size()) == 0, "a request");
    const int result = zb_call("@/somewhere", "method", io, 1, -1);
    size_t length = 0;
    const auto* content = static_cast<const char*>(zb_io_read(io, &length));
    const std::string_view payload(content, length);
    fuzz::expect(is_right(result, reply), "the result is that of the reply");
    fuzz::expect(content[length] == '\0', "a zero byte follows the payload");
    if (result == ZB_OK) {
        const uint64_t announced = length_of(reply);
        fuzz::expect(payload == std::string_view(reply).substr(header_size, announced),
                     "the payload is whole");
    } else {
        fuzz::expect(payload == request, "a failed call leaves the request");
    }
    zb_io_free(io);
    return 0;
}
