// What the records of a session are made of.
#include "session.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <limits>
#include <vector>

namespace {

constexpr int32_t vpn_type_openvpn = 4;
constexpr size_t name_size = RAVO_TEXT_SIZE - 1;

bool is_continuation(char byte) { return (static_cast<unsigned char>(byte) & 0xc0U) == 0x80U; }
bool is_control(char byte) { return static_cast<unsigned char>(byte) < 0x20 || byte == 0x7f; }

// How many bytes of a text fit, without the beginning of a character that does not.
size_t fitting_length(std::string_view text, size_t most) {
    if (text.size() <= most) return text.size();
    size_t length = most;
    while (length > 0 && most - length < 4 && is_continuation(text[length])) --length;
    return is_continuation(text[length]) ? most : length;  // no UTF-8: any place will do
}

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
           one.get(server_variable) == other.get(server_variable);
}

db_conn_server_log to_connection(const environment& event, session_action action) {
    auto row = empty_record<db_conn_server_log>();
    put(row.username, user_of(event));
    row.vpn_type = vpn_type_openvpn;
    row.uptime = event.number("time_duration");
    if (__builtin_add_overflow(event.number("time_unix"), row.uptime, &row.time)) {
        row.time = std::numeric_limits<uint64_t>::max();
    }
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

const char* limiter_objection(std::string_view name) {
    if (name.empty()) return "it is empty";
    if (name.size() > name_size) return "it has more than 1024 bytes";
    if (name.find('%') != std::string_view::npos) return "it has a percent sign";
    if (std::any_of(name.begin(), name.end(), is_control)) return "it has a control byte";
    return nullptr;
}

std::string shown(std::string_view name) {
    std::string text(name.substr(0, fitting_length(name, 200)));
    std::replace_if(text.begin(), text.end(), is_control, '?');
    return text;
}
