// What the records of a session are made of.
#include "session.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <limits>
#include <vector>

#include "text.h"

namespace {

template <size_t size>
void put(char (&field)[size], std::string_view text) {
    text = text.substr(0, text.find('\0'));
    (void)text.copy(field, fitting_length(text, size - 1));
}

template <class Record>
Record empty_record() {
    Record record;
    memset(&record, 0, sizeof record);
    return record;
}

int64_t byte_count(const environment& event, std::string_view name) {
    constexpr uint64_t most = std::numeric_limits<int64_t>::max();
    return static_cast<int64_t>(std::min(event.number(name), most));
}

void append(std::string& words, std::string_view word) {
    if (word.empty()) return;
    if (!words.empty()) words += ' ';
    words += word;
}

// Platform, program version and everything that the client says about itself, by name.
std::string device_info(const environment& event) {
    std::vector<std::pair<std::string_view, std::string_view>> own_words;
    for (const auto& [name, value] : event.variables()) {
        if (name.starts_with("UV_")) own_words.emplace_back(name, value);
    }
    std::sort(own_words.begin(), own_words.end());
    std::string info;
    append(info, event.get("IV_PLAT"));
    append(info, event.get("IV_VER"));
    for (const auto& [name, value] : own_words) append(info, value);
    return info;
}

std::string vpn_addresses(const environment& event) {
    std::string addresses;
    append(addresses, event.get("ifconfig_pool_remote_ip"));
    append(addresses, event.get("ifconfig_pool_remote_ip6"));
    return addresses;
}

std::string_view source_address(const environment& event) {
    return event.first_of("trusted_ip", "trusted_ip6");
}

// When it happened: as its server says, else when it was noticed.
uint64_t time_of(const environment& event) {
    if (event.get("time_unix").empty()) return event.number(noticed_variable);
    uint64_t time = 0;
    const uint64_t uptime = event.number("time_duration");
    const bool is_over = __builtin_add_overflow(event.number("time_unix"), uptime, &time);
    return is_over ? std::numeric_limits<uint64_t>::max() : time;
}

// Six pairs of hexadecimal digits, which are not all alike: no address of a device is.
std::optional<std::string> hardware_address(std::string_view text) {
    if (text.size() != 17) return std::nullopt;
    std::string address(text);
    for (size_t at = 0; at < address.size(); ++at) {
        const auto byte = static_cast<unsigned char>(address[at]);
        if (at % 3 == 2 && (byte == ':' || byte == '-')) {
            address[at] = ':';
        } else if (at % 3 != 2 && std::isxdigit(byte) != 0) {
            address[at] = static_cast<char>(std::tolower(byte));
        } else {
            return std::nullopt;
        }
    }
    if (address == "00:00:00:00:00:00" || address == "ff:ff:ff:ff:ff:ff") return std::nullopt;
    return address;
}

}  // namespace

std::string_view user_of(const environment& event) {
    return event.first_of("username", "common_name");
}

std::string session_key(const environment& event) {
    std::string key(event.get(server_variable));
    for (const std::string_view part : {event.get("time_unix"), source_address(event),
                                        event.get("trusted_port"), user_of(event)}) {
        key.append("\n").append(part);
    }
    return key;
}

bool is_same_session(const environment& one, const environment& other) {
    if (session_key(one) == session_key(other)) return true;
    const std::string address = vpn_addresses(one);
    return !address.empty() && address == vpn_addresses(other) && user_of(one) == user_of(other) &&
           one.get("time_unix") == other.get("time_unix") &&
           is_same_server(one.get(server_variable), other.get(server_variable));
}

db_conn_server_log to_connection(const environment& event, session_action action) {
    auto row = empty_record<db_conn_server_log>();
    put(row.username, user_of(event));
    row.vpn_type = static_cast<int32_t>(event.number(type_variable));
    row.uptime = event.number("time_duration");
    row.time = time_of(event);
    put(row.device_info, device_info(event));
    put(row.source_ip, source_address(event));
    put(row.vpn_ip, vpn_addresses(event));
    row.tx_total = byte_count(event, "bytes_sent");
    row.rx_total = byte_count(event, "bytes_received");
    put(row.outgoing, event.get("dev"));
    row.action = static_cast<int32_t>(action);
    return row;
}

db_conn_server_log to_lost_connection(const environment& connect, time_t noticed) {
    db_conn_server_log row = to_connection(connect, session_action::lost);
    const auto end = static_cast<uint64_t>(std::max<time_t>(noticed, 0));
    row.uptime = end > row.time ? end - row.time : 0;
    row.time = std::max(end, row.time);
    return row;
}

std::optional<db_device_info_data> to_device(const environment& connect) {
    const std::optional<std::string> mac = hardware_address(connect.get("IV_HWADDR"));
    if (!mac) return std::nullopt;
    auto device = empty_record<db_device_info_data>();
    put(device.ip, vpn_addresses(connect));
    put(device.mac, *mac);
    put(device.user_id, user_of(connect));
    put(device.dev_name, connect.get("UV_DEVICE"));
    put(device.nic, connect.get("dev"));
    device.time = connect.number("time_unix");
    return device;
}
