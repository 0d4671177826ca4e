// What of a call of OpenVPN's hooks is kept.
#include "event.h"

#include <array>

namespace {

constexpr size_t client_texts_size = 2048;

constexpr std::array kept_variables = {"username",
                                       "common_name",
                                       "time_unix",
                                       "time_duration",
                                       "trusted_ip",
                                       "trusted_ip6",
                                       "trusted_port",
                                       "dev",
                                       "ifconfig_pool_remote_ip",
                                       "ifconfig_pool_remote_ip6",
                                       "bytes_sent",
                                       "bytes_received",
                                       "IV_PLAT",
                                       "IV_VER",
                                       "IV_HWADDR"};

void keep_client_texts(environment& event, const environment& given) {
    size_t left = client_texts_size;
    for (const auto& [name, value] : given.variables()) {
        if (!name.starts_with("UV_") || name.size() + value.size() > left) continue;
        event.keep(name, value);
        left -= name.size() + value.size();
    }
}

}  // namespace

environment to_event(std::string_view hook, const environment& given, time_t now) {
    const auto server = static_cast<pid_t>(given.number("daemon_pid"));
    environment event = new_event(hook, vpn_type::openvpn, server, now);
    for (const char* name : kept_variables) event.keep(name, given.get(name));
    keep_client_texts(event, given);
    return event;
}
