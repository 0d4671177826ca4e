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
// A program may ask for profiles while it holds the exclusive lock of the VPN options, so nothing
// here waits for that lock (see gateway_setting.h).
#include <jansson.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "default_routes.h"
#include "gateway_setting.h"
#include "json_service.h"
#include "json_texts.h"

namespace {

constexpr char profiles_file[] = "/etc/config/vpn_profiles.conf";

enum network_error {
    network_ok = 0,
    bad_request = 1,         // no JSON object, or its "key" is no text
    file_unreadable = 2,     // no regular file, not readable, too large; profiles: no JSON object
    file_locked = 3,         // the lock of the options cannot be made
    routes_unavailable = 4,  // the kernel did not tell the routes
};

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
    const json_ptr request =
        *request_text != '\0' ? parse_text(request_text) : json_ptr(json_object());
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

network_error to_error(options_reading result) {
    switch (result) {
        case options_reading::unreadable:
            return file_unreadable;
        case options_reading::unlockable:
            return file_locked;
        case options_reading::done:
            break;
    }
    return network_ok;
}

// Never freed: its thread runs to the end.
gateway_setting* setting = nullptr;

json_ptr update_vpn_gateway(const char* /*request_text*/) {
    return answer_error(to_error(setting->read_again()));
}

void read_first_setting() {
    setting = new gateway_setting;
    (void)setting->read_again();
}

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
