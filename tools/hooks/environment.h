// The variables that a hook of a VPN server is given, and those that an event has.
#ifndef HOOKS_ENVIRONMENT_H
#define HOOKS_ENVIRONMENT_H

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Names and values as raw bytes, in their order.
class environment {
  public:
    environment() = default;
    // Of a process: "NAME=VALUE" texts up to a null pointer, which may be null itself. Others are
    // left out.
    explicit environment(const char* const* variables);
    // Of an event's bytes: the same texts, a zero byte behind each. What is behind the last is no
    // text.
    explicit environment(std::string_view bytes);

    std::string bytes() const;
    void set(std::string_view name, std::string_view value);
    // The first 1024 bytes of a value; nothing of an empty one.
    void keep(std::string_view name, std::string_view value);
    // The value; empty when there is none.
    std::string_view get(std::string_view name) const;
    // The value of the first that has one.
    std::string_view first_of(std::string_view name, std::string_view other) const;
    // The value as a decimal number; 0 when it is none, the largest when it is larger.
    uint64_t number(std::string_view name) const;

    const std::vector<std::pair<std::string, std::string>>& variables() const { return variables_; }

  private:
    void add_text(std::string_view text);

    std::vector<std::pair<std::string, std::string>> variables_;
};

// --- Events --------------------------------------------------------------------------------------

// The names of an event's own variables. They come first, so that those of a client with the same
// names do not count. All others have the names that OpenVPN gives them.
inline constexpr char hook_variable[] = "hook";        // "connect", "disconnect", "server-up", ...
inline constexpr char type_variable[] = "vpn_type";    // a vpn_type
inline constexpr char noticed_variable[] = "noticed";  // seconds since the epoch
inline constexpr char server_variable[] = "server";    // server_identity()

// The values of a record's column of that name.
enum class vpn_type { pptp = 1, l2tp = 2, openvpn = 4 };

// An event with its own variables, and nothing else yet. server: the process id of the VPN server.
environment new_event(std::string_view hook, vpn_type type, pid_t server, time_t now);

// --- Servers -------------------------------------------------------------------------------------

// What only this process has: the machine's start, the process id, and the process's start in
// ticks, which is empty when there is no such process.
std::string server_identity(pid_t pid);

// Whether two identities are of one server, which may have ended before one of them was made.
bool is_same_server(std::string_view one, std::string_view other);

// Whether the process with that identity runs.
bool is_running(std::string_view identity);

#endif  // HOOKS_ENVIRONMENT_H
