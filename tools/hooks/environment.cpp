// The variables that a hook is given, and those that an event has.
#include "environment.h"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <iterator>
#include <limits>

namespace {

constexpr size_t value_size = 1024;

std::string file_text(const std::string& path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), {}};
}

// The 20th of the numbers behind the name, which stands in brackets and may hold anything.
std::string start_in_ticks(pid_t pid) {
    const std::string status = file_text("/proc/" + std::to_string(pid) + "/stat");
    const size_t name_end = status.rfind(')');
    if (name_end == std::string::npos) return "";
    size_t at = name_end + 2;
    for (int n = 0; n < 19 && at != std::string::npos; ++n) {
        at = status.find(' ', at);
        if (at != std::string::npos) ++at;
    }
    if (at == std::string::npos) return "";
    return status.substr(at, status.find(' ', at) - at);
}

}  // namespace

// --- The variables -------------------------------------------------------------------------------

void environment::add_text(std::string_view text) {
    const size_t equals = text.find('=');
    if (equals == std::string_view::npos || equals == 0) return;
    variables_.emplace_back(text.substr(0, equals), text.substr(equals + 1));
}

environment::environment(const char* const* variables) {
    for (; variables != nullptr && *variables != nullptr; ++variables) add_text(*variables);
}

environment::environment(std::string_view bytes) {
    for (size_t end = 0; (end = bytes.find('\0')) != std::string_view::npos;) {
        add_text(bytes.substr(0, end));
        bytes.remove_prefix(end + 1);
    }
}

std::string environment::bytes() const {
    std::string text;
    for (const auto& [name, value] : variables_)
        text.append(name).append("=").append(value) += '\0';
    return text;
}

void environment::set(std::string_view name, std::string_view value) {
    variables_.emplace_back(name, value);
}

void environment::keep(std::string_view name, std::string_view value) {
    if (!value.empty()) set(name, value.substr(0, value_size));
}

std::string_view environment::get(std::string_view name) const {
    const auto found = std::find_if(variables_.begin(), variables_.end(),
                                    [name](const auto& each) { return each.first == name; });
    return found == variables_.end() ? std::string_view() : found->second;
}

std::string_view environment::first_of(std::string_view name, std::string_view other) const {
    const std::string_view value = get(name);
    return value.empty() ? get(other) : value;
}

uint64_t environment::number(std::string_view name) const {
    const std::string_view text = get(name);
    uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error == std::errc::result_out_of_range) return std::numeric_limits<uint64_t>::max();
    return error == std::errc() && end == text.data() + text.size() ? value : 0;
}

// --- Events --------------------------------------------------------------------------------------

environment new_event(std::string_view hook, vpn_type type, pid_t server, time_t now) {
    environment event;
    event.set(hook_variable, hook);
    event.set(type_variable, std::to_string(static_cast<int>(type)));
    event.set(noticed_variable, std::to_string(now));
    event.set(server_variable, server_identity(server));
    return event;
}

// --- Servers -------------------------------------------------------------------------------------

std::string server_identity(pid_t pid) {
    std::string boot = file_text("/proc/sys/kernel/random/boot_id");
    if (!boot.empty() && boot.back() == '\n') boot.pop_back();
    return boot + "/" + std::to_string(pid) + "/" + start_in_ticks(pid);
}

bool is_same_server(std::string_view one, std::string_view other) {
    const auto is_start_unknown = [](std::string_view identity) { return identity.ends_with('/'); };
    return one == other || (is_start_unknown(one) && other.starts_with(one)) ||
           (is_start_unknown(other) && one.starts_with(other));
}

bool is_running(std::string_view identity) {
    const size_t pid_at = identity.find('/') + 1;
    const size_t pid_end = identity.find('/', pid_at);
    if (pid_at == 0 || pid_end == std::string_view::npos || identity.ends_with('/')) return false;
    pid_t pid = 0;
    std::from_chars(identity.data() + pid_at, identity.data() + pid_end, pid);
    return server_identity(pid) == identity;
}
