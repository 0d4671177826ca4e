// What ravoctl says and returns when a call over the bus has failed.
#include "bus.h"

#include <fmt/format.h>

#include <new>

#include "text.h"

// Weak, because another implementation of the bus may come first in the library path, and that need
// not have this function.
#pragma weak zb_strerror

namespace {

constexpr char no_such_method[] = "ravoctl_is_anybody_there";

bool has_names() { return &zb_strerror != nullptr; }

std::string reason(int result) {
    return has_names() ? zb_strerror(result) : fmt::format("bus result {}", result);
}

// Only this project's own bus gives its failures these numbers.
bool is_out_of_reach(int result) {
    return has_names() && (result == ZB_ERROR_UNREACHABLE || result == ZB_ERROR_DENIED ||
                           result == ZB_ERROR_UNTRUSTED);
}

exit_status report_unreachable(const std::string& endpoint, int result) {
    fmt::print(stderr, "ravoctl: {} is not reachable: {}\n", escaped(endpoint), reason(result));
    return unreachable;
}

int probe() {
    return zb_call(daemon_endpoint, no_such_method, make_request({}).get(), call_timeout_s, -1);
}

}  // namespace

io_owner make_request(std::string_view payload) {
    io_owner io(zb_io_create());
    if (io == nullptr || zb_io_write(io.get(), payload.data(), payload.size()) != 0) {
        throw std::bad_alloc();
    }
    return io;
}

exit_status report_failure(const std::string& endpoint, int result) {
    if (is_out_of_reach(result)) return report_unreachable(endpoint, result);
    fmt::print(stderr, "ravoctl: no answer from {}: {}\n", escaped(endpoint), reason(result));
    return unanswered;
}

exit_status report_unread() {
    const int result = probe();
    if (result == 0 || (has_names() && result == ZB_ERROR_NO_REPLY)) {
        fmt::print(stderr, "ravoctl: {} runs, but did not answer the query\n", daemon_endpoint);
        return unanswered;
    }
    // A bus whose failures have no names cannot tell the two apart; a daemon that is not running is
    // the likelier reason, since the query itself was checked before.
    if (!has_names()) return report_unreachable(daemon_endpoint, result);
    return report_failure(daemon_endpoint, result);
}
