// The daemon's state as metrics, in the text format that Prometheus reads.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "block_settings.h"
#include "command_line.h"

struct daemon_metrics {
    bool is_up = false;                                  // all but the settings are known only then
    std::vector<std::pair<std::string, uint64_t>> rows;  // of each table
    uint64_t open_sessions = 0;
    uint64_t received_bytes = 0;
    uint64_t sent_bytes = 0;
    uint64_t blocked_users = 0;
    uint64_t failed_logins = 0;
    block_settings settings = {};
};

// Metrics that are not known are left out.
std::string to_metrics_text(const daemon_metrics& metrics);

void declare_metrics(command_line& line);
