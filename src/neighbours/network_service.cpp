// NetworkService: the network service of a plain machine. Answers on the bus what the VPN service
// wants to know of the network:
//
//   external_dev.list           profiles of VPN connections, from the profiles file
//   external_dev.update_vpn_gw  reads the gateway setting of the VPN options again
//   api.get_currentGWinfo       the interfaces of the current default routes, from the kernel
//
// Every answer is a JSON object with an integer "error": 0, or one of network_error. Runs in the
// foreground until SIGINT or SIGTERM; says READY=1 on NOTIFY_SOCKET.
//
// It changes no route: on a plain machine routes are the administrator's. What the gateway setting
// is, it says in one line on standard output, at the start and whenever it has read it again, so
// that whoever does set routes can follow it there.
//
// A program may ask for profiles while it holds the exclusive lock of the VPN options, so only the
// reading of the gateway setting ever takes that lock.
#include <jansson.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "default_routes.h"
#include "json_service.h"
#include "plain_text.h"
#include "vpn_options.h"

namespace {

constexpr char profiles_file[] = "/etc/config/vpn_profiles.conf";
constexpr size_t max_shown_name = 64;  // bytes of a connection's name in the line about it

enum network_error {
    network_ok = 0,
    bad_request = 1,         // no JSON object, or its "key" is no text
    file_unreadable = 2,     // no regular file, not readable, too large, or no JSON object
    file_locked = 3,         // somebody writes the options all the time, or they cannot be locked
    routes_unavailable = 4,  // the kernel did not tell the routes
};

// The gateway setting in words, as it was read last.
std::string gateway_setting = "no VPN gateway";

// The object in a file, an empty one when there is no such file. Null when it cannot be read.
json_ptr read_object(const char* path) {
    const descriptor found = find_file(path);
    if (!found.is_open() && errno == ENOENT) return json_ptr(json_object());
    json_ptr document = read_document(found);
    return json_is_object(document.get()) ? std::move(document) : nullptr;
}

// --- Profiles ------------------------------------------------------------------------------------

bool is_profile(const json_t* entry) { return json_is_string(json_object_get(entry, "profile")); }

json_ptr list_profiles(const char* request_text) {
    const json_ptr request(*request_text != '\0' ? json_loads(request_text, 0, nullptr)
                                                 : json_object());
    const json_t* key = json_object_get(request.get(), "key");
    if (!json_is_object(request.get()) || (key != nullptr && !json_is_string(key))) {
        return answer_error(bad_request);
    }
    const json_ptr profiles = read_object(profiles_file);
    if (!profiles) return answer_error(file_unreadable);
    json_ptr chosen(json_object());
    const char* name = nullptr;
    json_t* entry = nullptr;
    json_object_foreach(profiles.get(), name, entry) {
        const bool is_asked_for = key == nullptr || strcmp(name, json_string_value(key)) == 0;
        if (is_asked_for && is_profile(entry)) (void)json_object_set(chosen.get(), name, entry);
    }
    return answer_data(std::move(chosen));
}

// --- Gateway setting -----------------------------------------------------------------------------

// The name of a connection, cut where a character begins, without control characters.
std::string shown_name(const json_t* connection) {
    const char* text = json_string_value(json_object_get(connection, "sname"));
    if (text == nullptr || *text == '\0') return "(without a name)";
    std::string_view name = text;
    const auto is_inside_character = [](char c) {
        return (static_cast<unsigned char>(c) & 0xc0) == 0x80;
    };
    if (name.size() > max_shown_name) {
        size_t end = max_shown_name;
        while (is_inside_character(name[end])) --end;
        name = name.substr(0, end);
    }
    return escape(name, is_control);
}

// Some numbers of the interval mean no time.
std::string shown_interval(const json_t* section) {
    if (!json_is_number(json_object_get(section, "failover_interval"))) return "";
    switch (const int interval = ravo::number<int>(section, "failover_interval")) {
        case -1:
            return ", does not revert";
        case 0:
            return ", reverts at once";
        default:
            return ", reverts after " + std::to_string(interval);
    }
}

std::string describe_gateway(const json_t* section) {
    if (ravo::number<int>(section, "as_gw_en") == 0) return "no VPN gateway";
    std::string gateway = "gateway " + shown_name(json_object_get(section, "gw1"));
    if (ravo::number<int>(section, "failover_en") == 0) return gateway;
    return gateway + ", backup " + shown_name(json_object_get(section, "gw2")) +
           shown_interval(section);
}

// Writes a line, unless nobody takes it: the service waits for no reader.
void say(FILE* stream, const std::string& text) {
    const std::string line = text + "\n";
    pollfd room = {fileno(stream), POLLOUT, 0};
    if (poll(&room, 1, 0) == 1) (void)!write(room.fd, line.data(), line.size());
}

// Reads the gateway setting. On failure the one known before stays.
network_error read_gateway_setting() {
    const ravo::options_lock lock(Ini_Conf_Read_Lock_File);
    if (!lock.is_held()) return file_locked;
    const json_ptr options = read_object(ravo::options_path);
    if (!options) return file_unreadable;
    gateway_setting = describe_gateway(json_object_get(options.get(), "gw_setting"));
    return network_ok;
}

// Reads it and says what it is now.
network_error update_gateway_setting() {
    const network_error error = read_gateway_setting();
    if (error == network_ok) {
        say(stdout, gateway_setting);
    } else {
        const char* what = error == file_locked ? "lock" : "read";
        say(stderr, std::string("NetworkService: cannot ") + what + " " + ravo::options_path +
                        "; what was known stays: " + gateway_setting);
    }
    return error;
}

json_ptr update_vpn_gateway(const char* /*request_text*/) {
    return answer_error(update_gateway_setting());
}

void read_first_setting() { (void)update_gateway_setting(); }

// --- Default routes ------------------------------------------------------------------------------

// An interface whose name is no UTF-8 has no place in JSON and is left out.
json_ptr list_gateways(const char* /*request_text*/) {
    std::vector<gateway_interface> interfaces;
    if (const int error = read_gateway_interfaces(interfaces)) {
        say(stderr, std::string("NetworkService: cannot read the routes: ") + strerror(error));
        return answer_error(routes_unavailable);
    }
    json_ptr list(json_array());
    for (const gateway_interface& interface : interfaces) {
        json_t* entry = json_pack("{s:s, s:s}", "interface_type", interface.type, "ifname",
                                  interface.name.c_str());
        if (entry != nullptr) (void)json_array_append_new(list.get(), entry);
    }
    return answer_data(std::move(list));
}

constexpr json_method methods[] = {
    {"external_dev.list", list_profiles},
    {"external_dev.update_vpn_gw", update_vpn_gateway},
    {"api.get_currentGWinfo", list_gateways},
};

}  // namespace

int main(int argc, char** argv) {
    (void)signal(SIGPIPE, SIG_IGN);  // whoever reads our lines may leave
    return run_json_service(
        {.name = "NetworkService", .methods = methods, .prepare = read_first_setting}, argc, argv);
}
