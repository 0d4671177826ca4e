// One raw call of a method, for looking at an endpoint by hand.
#pragma once

#include <optional>
#include <string>

#include "bus.h"
#include "failure.h"

struct call_request {
    std::string method;
    std::string endpoint = daemon_endpoint;
    int timeout_s = call_timeout_s;
    std::optional<std::string> text;  // at most one of the three payloads is given
    std::optional<std::string> hex;
    std::optional<std::string> file;  // "-" is standard input
    bool raw = false;
};

// Calls and prints the reply on standard output: byte for byte when raw, as text when it is
// printable, otherwise as a hex dump. Throws usage_error for an address or method name that the bus
// cannot take and for a payload that cannot be read.
exit_status call_method(const call_request& request);
