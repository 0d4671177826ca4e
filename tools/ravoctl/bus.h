// What ravoctl says and returns when a call over the bus has failed.
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

// Tells on standard error why a call to the endpoint failed with the given result of the bus, and
// returns the exit status that goes with it: unreachable or unanswered.
exit_status report_failure(const std::string& endpoint, int result);

// The same after a call that does not say why it read nothing: asks the daemon for a method
// that does not exist, which tells a daemon that is not there from one that refused the query.
exit_status report_unread();
