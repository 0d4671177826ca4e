// What ravoctl says and how it ends when a call over the bus has failed.
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

failure unreachable_failure(const std::string& endpoint, int result) {
    return {unreachable, fmt::format("{} is not reachable: {}", escaped(endpoint), reason(result))};
}

// Only this project's own bus gives its failures these numbers.
exit_status status_of(int result) {
    if (!has_names()) return unanswered;
    switch (result) {
        case ZB_ERROR_UNREACHABLE:
        case ZB_ERROR_UNTRUSTED:
            return unreachable;
        case ZB_ERROR_DENIED:
            return not_permitted;
        case ZB_ERROR_TIMEOUT:
            return timed_out;
        case ZB_ERROR_ARGUMENT:
        case ZB_ERROR_MEMORY:
        case ZB_ERROR_SYSTEM:
            return failed_here;
        default:
            return unanswered;
    }
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

failure call_failure(const std::string& endpoint, int result) {
    const exit_status status = status_of(result);
    if (status == unreachable) return unreachable_failure(endpoint, result);
    return {status, fmt::format("no answer from {}: {}", escaped(endpoint), reason(result))};
}

failure unread_failure() {
    const int result = probe();
    if (result == 0 || (has_names() && result == ZB_ERROR_NO_REPLY)) {
        return {unanswered, fmt::format("{} runs, but did not answer the query", daemon_endpoint)};
    }
    // A bus whose failures have no names cannot tell the two apart; a daemon that is not running is
    // the likelier reason, since the query itself was checked before.
    if (!has_names()) return unreachable_failure(daemon_endpoint, result);
    return call_failure(daemon_endpoint, result);
}

void check_answered(int result) {
    if (result != 0) throw call_failure(daemon_endpoint, result);
}
