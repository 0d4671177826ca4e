// The gateway setting of the global VPN options: shown, set, and one connection taken out of it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "failure.h"

// Words that name a VPN client connection: its type and its index, such as "openvpn" "1".
using connection_words = std::vector<std::string>;

struct gateway_request {
    connection_words gateway;  // or the single word "none"
    connection_words backup;   // may be empty
    std::optional<std::string> delay;
    bool reset = false;  // begin a damaged file anew
};

// The words that types are given by, and the range of indexes of each, for help texts.
std::string gateway_words_help();

// Prints the setting, and the VPN connection that carries the default route now. An interrupted
// change is told on standard error, and so is a damaged file; then the result is local_error.
exit_status show_gateway(bool as_json);

// Takes an interrupted change back, has the store save the setting, and prints it. Throws
// usage_error for what the store would take and could not use, not_kept_error when the file does
// not hold the setting afterwards, and std::runtime_error when nothing could be done.
exit_status set_gateway(const gateway_request& request);

// The same for taking a connection out of the setting; tells what came of it. Throws the same.
exit_status drop_gateway(const connection_words& words);
