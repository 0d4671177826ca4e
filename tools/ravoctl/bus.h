// What ravoctl says and how it ends when a call over the bus has failed.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "failure.h"
#include "zbservice.h"

inline constexpr char daemon_endpoint[] = "@/var/run/ravod.sock";
inline constexpr int call_timeout_s = 5;

struct io_deleter {
    void operator()(zb_io* io) const { zb_io_free(io); }
};
using io_owner = std::unique_ptr<zb_io, io_deleter>;

// A buffer with a request's payload. Throws std::bad_alloc.
io_owner make_request(std::string_view payload);

// Why a call to the endpoint failed with the given result of the bus.
failure call_failure(const std::string& endpoint, int result);

// The same after a call of the daemon that does not say why it read nothing: asks for a method that
// does not exist, which tells a daemon that is not there from one that refused the query.
failure unread_failure();

// Throws call_failure unless the daemon has answered.
void check_answered(int result);
