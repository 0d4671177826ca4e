// The gateway setting of the VPN options, as the network service follows it.
#include "gateway_setting.h"

#include <jansson.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <string_view>
#include <thread>

#include "json_service.h"
#include "plain_text.h"
#include "vpn_options.h"

namespace {

// What a request waits for. While the lock is not free, its holder waits as well.
constexpr std::chrono::milliseconds lock_patience{10};
constexpr std::chrono::milliseconds reading_patience{1000};
constexpr size_t max_shown_name = 64;  // bytes of a connection's name in the line about it

// --- In words ------------------------------------------------------------------------------------

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

// --- Reading -------------------------------------------------------------------------------------

void say_failure(const char* what, const std::string& setting) {
    say(stderr, std::string("NetworkService: cannot ") + what + " " + ravo::options_path +
                    "; what was known stays: " + setting);
}

}  // namespace

void say(FILE* stream, const std::string& text) {
    const std::string line = text + "\n";
    pollfd room = {fileno(stream), POLLOUT, 0};
    if (poll(&room, 1, 0) == 1) (void)!write(room.fd, line.data(), line.size());
}

gateway_setting::gateway_setting() {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    (void)pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread([this] { serve(); }).detach();
    (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

options_reading gateway_setting::read_again() {
    std::unique_lock hold(access);
    const uint64_t mine = ++wanted;
    changed.notify_all();
    const auto is_read = [&] { return finished >= mine; };
    changed.wait_for(hold, lock_patience, [&] { return is_read() || is_locked; });
    if (!is_read() && is_locked) changed.wait_for(hold, reading_patience, is_read);
    return is_read() ? result : options_reading::done;
}

void gateway_setting::serve() {
    while (true) {
        {
            std::unique_lock hold(access);
            changed.wait(hold, [&] { return finished < wanted; });
        }
        read();
    }
}

// Waits for the lock as long as somebody holds it.
void gateway_setting::read() {
    const ravo::options_lock lock(Ini_Conf_Read_Lock_File);
    if (lock.error() == ostra_lock_timed_out) return;
    const uint64_t current = begin();
    if (lock.is_held()) return end(current, read_file());
    say_failure("lock", description);
    end(current, options_reading::unlockable);
}

// The reading that begins now is for everybody who has asked so far.
uint64_t gateway_setting::begin() {
    const std::lock_guard hold(access);
    is_locked = true;
    changed.notify_all();
    return wanted;
}

void gateway_setting::end(uint64_t current, options_reading outcome) {
    const std::lock_guard hold(access);
    is_locked = false;
    finished = current;
    result = outcome;
    changed.notify_all();
}

options_reading gateway_setting::read_file() {
    const descriptor found = find_file(ravo::options_path);
    const bool is_missing = !found.is_open() && errno == ENOENT;
    std::string bytes;
    if (!is_missing && !read_bytes(found, bytes)) {
        say_failure("read", description);
        return options_reading::unreadable;
    }
    const json_ptr options(json_loadb(bytes.data(), bytes.size(), 0, nullptr));
    if (!bytes.empty() && !json_is_object(options.get())) {
        say(stderr, std::string("NetworkService: ") + ravo::options_path + " holds no JSON object");
    }
    description = describe_gateway(json_object_get(options.get(), "gw_setting"));
    say(stdout, description);
    return options_reading::done;
}
