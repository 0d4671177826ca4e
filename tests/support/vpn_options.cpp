// The world of the global VPN options: options file, network service and notifier of a test.
#include "support/vpn_options.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <mutex>

#include "support/files.h"

// For the sanitizers, which know the places of the deliberate leaks (lsan.supp) only by stacks that
// reach beyond the JSON library.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options();
extern "C" const char* __asan_default_options() { return "fast_unwind_on_malloc=0"; }

namespace {

std::mutex events_lock;
std::vector<std::string> happened;
std::optional<recording_notifier> notifier;
const pid_t test_process = getpid();

void add_event(const std::string& event) {
    {
        const std::lock_guard hold(events_lock);
        happened.push_back(event);
    }
    if (vpn_options::on_event) vpn_options::on_event();
}

}  // namespace

// --- In front of the system's own calls ----------------------------------------------------------

extern "C" pid_t __real_waitpid(pid_t pid, int* status, int options);
extern "C" pid_t __wrap_waitpid(pid_t pid, int* status, int options);
extern "C" pid_t __wrap_waitpid(pid_t pid, int* status, int options) {
    const pid_t ended = __real_waitpid(pid, status, options);
    if (ended > 0 && notifier && getpid() == test_process) add_event(notifier->receive());
    return ended;
}

extern "C" json_t* __real_json_loadf(FILE* input, size_t flags, json_error_t* error);
extern "C" json_t* __wrap_json_loadf(FILE* input, size_t flags, json_error_t* error);
extern "C" json_t* __wrap_json_loadf(FILE* input, size_t flags, json_error_t* error) {
    if (vpn_options::on_reading) vpn_options::on_reading();
    return __real_json_loadf(input, flags, error);
}

namespace vpn_options {

// --- Documents -----------------------------------------------------------------------------------

std::string with_setting(const std::string& members) {
    return R"({"global": {"version": "1"}, "gw_setting": {)" + members + "}}";
}

std::string stored() {
    return std::filesystem::exists(std::filesystem::symlink_status(path)) ? read_file(path)
                                                                          : "(none)";
}

std::function<void()> on_reading;

void replace_file(const std::string& bytes) {
    write_file("/etc/config/new", bytes);
    std::filesystem::rename("/etc/config/new", path);
}

std::string take_text(json_t* value) {
    const std::unique_ptr<char, void (*)(void*)> text(json_dumps(value, JSON_ENCODE_ANY), free);
    json_decref(value);
    return text ? text.get() : "(null)";
}

std::string text_of(const JsonValue& node) {
    std::string text;
    node.toString(text);
    return text;
}

bool is_free(int operation) {
    const bus_test::file lock(open(lock_path, O_RDONLY | O_CREAT | O_CLOEXEC, 0666));
    return flock(lock.get(), operation | LOCK_NB) == 0;
}

std::vector<std::string> descriptors() {
    std::vector<std::string> found;
    for (int fd = 0; fd < 300; ++fd) {
        std::error_code none;
        const std::string target =
            std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), none);
        if (target != path && target != lock_path) continue;
        found.push_back(target + (fcntl(fd, F_GETFD) == FD_CLOEXEC ? "" : " (inherited)"));
    }
    std::sort(found.begin(), found.end());
    return found;
}

// --- What happens --------------------------------------------------------------------------------

std::function<void()> on_event;
std::map<std::string, std::string> replies = {{"external_dev.list", R"({"error": 0, "data": {
        "OPENVPN_CLIENT3": {"profile": "office"}, "PPTP_CLIENT1": {"profile": "home"},
        "L2TP_CLIENT2": {"profile": "ship"}, "TESSEL_CLIENT0": {"profile": "lab"}}})"},
                                              {"external_dev.update_vpn_gw", R"({"error": 0})"}};

std::vector<std::string> events() {
    const std::lock_guard hold(events_lock);
    return happened;
}

void forget_events() {
    const std::lock_guard hold(events_lock);
    happened.clear();
}

std::string profile_call(const std::string& sname) {
    return R"(external_dev.list {"key": ")" + sname + "\"}";
}

std::string gateway_set(const std::string& type, const std::string& profile) {
    return recording_notifier::words("C002", "0011", "info",
                                     R"([{0}] Set NAS default gateway to the {1} profile: "{2}".)",
                                     {type, profile});
}

std::string backup_set(const std::string& type, const std::string& profile) {
    return recording_notifier::words(
        "C002", "0012", "info",
        R"([{0}] Set backup NAS default gateway to the {1} profile: "{2}".)", {type, profile});
}

std::string delay_set(const std::string& delay) {
    return recording_notifier::words(
        "C002", "0013", "info",
        R"([{0}] Set the delay for NAS default gateway reversion to "{1}".)", {delay});
}

// --- Log lines -----------------------------------------------------------------------------------

expected_line log_of(const std::string& function, const std::string& message) {
    return {"ERROR", "global_options.cpp", function, message};
}
expected_line failed_call(const std::string& event) {
    return log_of("easy_zb_call", "easy_zb_call: zb_call NetworkService." + event + " failed\n");
}
expected_line failed_update() { return log_of("save", "update_vpn_gw: zb_call failed\n"); }
expected_line no_options_file() {
    return log_of("load", "Open /etc/config/vpn_options.conf failed.");
}
expected_line no_lock() { return log_of("load", "Ini_Conf_Read_Lock_File failed."); }
expected_line no_object() { return log_of("load", "root isn't a object."); }

// --- The world -----------------------------------------------------------------------------------

static void answer(const std::string& method, zb_io* io, int /*fd*/) {
    add_event(method + " " + std::string(bus_test::content(io)));
    const auto reply = replies.find(method);
    if (reply != replies.end()) bus_test::answer(io, reply->second);
}

world::world() {
    notifier.emplace();
    network_service.emplace(answer, "NetworkService");
}

world::~world() {
    network_service.reset();
    notifier.reset();
}

void world::remove_notifier() { notifier.reset(); }

void start_case(const std::optional<std::string>& bytes) {
    forget_log();
    forget_events();
    std::filesystem::remove(path);
    if (bytes) write_file(path, *bytes);
}

}  // namespace vpn_options
