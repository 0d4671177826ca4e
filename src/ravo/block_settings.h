// The login-attempt limiter's settings, and what they say of a user's counter. The daemon decides
// by them, and tools that show its counters come to the same result.
#ifndef BLOCK_SETTINGS_H
#define BLOCK_SETTINGS_H

#include <jansson.h>

#include <cstdint>
#include <ctime>

inline constexpr char block_settings_path[] = "/etc/config/vpn_block.conf";

struct block_settings {
    bool available = false;  // the settings service has answered
    bool enabled = false;
    int64_t limit = 0;
    uint64_t block_seconds = 0;
};

// Minutes as whole seconds, toward zero. What 64 bits cannot hold is the nearest that they can.
inline uint64_t whole_seconds(double minutes) {
    constexpr double beyond = 18446744073709551616.0;  // 2^64
    const double seconds = minutes * 60.0;
    if (!(seconds > 0)) return 0;
    return seconds >= beyond ? UINT64_MAX : static_cast<uint64_t>(seconds);
}

// Reads the settings service's reply; null stands for none. What is missing, or of another type,
// is 0 or off. The limit and the time of a limiter that is off are not read.
inline block_settings to_block_settings(const json_t* reply) {
    block_settings settings;
    settings.available = reply != nullptr;
    const json_t* global = json_object_get(json_object_get(reply, "data"), "global");
    settings.enabled = json_is_true(json_object_get(global, "enable"));
    if (settings.enabled) {
        settings.limit = json_integer_value(json_object_get(global, "limit"));
        settings.block_seconds = whole_seconds(json_number_value(json_object_get(global, "time")));
    }
    return settings;
}

// Whether a block that began at the timestamp still lasts. Compared as doubles, so that a clock set
// back keeps a block.
inline bool still_blocks(const block_settings& settings, uint64_t timestamp, time_t now) {
    const double elapsed = difftime(now, static_cast<time_t>(timestamp));
    return elapsed < static_cast<double>(settings.block_seconds);
}

#endif  // BLOCK_SETTINGS_H
