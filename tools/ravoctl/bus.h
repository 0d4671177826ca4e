// What ravoctl says and returns when a call over the bus has failed.
#pragma once

#include <string>

#include "failure.h"

inline constexpr char daemon_endpoint[] = "@/var/run/ravod.sock";
inline constexpr int call_timeout_s = 5;

// Tells on standard error why a call to the endpoint failed with the given result of the bus, and
// returns the exit status that goes with it: unreachable or unanswered.
exit_status report_failure(const std::string& endpoint, int result);

// The same after a list call, which does not say why it read nothing: asks the daemon for a method
// that does not exist, which tells a daemon that is not there from one that refused the query.
exit_status report_unread_list();
