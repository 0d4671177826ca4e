// The settings of the hooks: /etc/ravo-openvpn.conf, one setting in each line.
#ifndef RAVO_OPENVPN_CONFIGURATION_H
#define RAVO_OPENVPN_CONFIGURATION_H

#include <string>
#include <string_view>
#include <vector>

#include "journal.h"

inline constexpr char configuration_path[] = "/etc/ravo-openvpn.conf";
inline constexpr journal_folders openvpn_folders = {"/run/ravo-openvpn", "/var/spool/ravo-openvpn"};

struct configuration {
    std::vector<std::string> verifier;  // the program that knows passwords, with its arguments
    unsigned verifier_seconds = 30;
    bool is_open_without_limiter = true;
    unsigned waiting_events = 10000;         // at most, while the daemon is away
    std::vector<std::string> unknown_lines;  // to be told to the log
};

// The settings of a text. What is not said, or cannot be understood, is as above.
configuration parse_configuration(std::string_view text);

// The settings of the file; those above when there is none.
configuration read_configuration();

#endif  // RAVO_OPENVPN_CONFIGURATION_H
