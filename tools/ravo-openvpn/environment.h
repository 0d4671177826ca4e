// The variables that a hook of OpenVPN is given, and those that an event keeps of them.
#ifndef RAVO_OPENVPN_ENVIRONMENT_H
#define RAVO_OPENVPN_ENVIRONMENT_H

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

// The names of an event's own variables. OpenVPN and its clients use none of them.
inline constexpr char hook_variable[] = "hook";        // "connect", "disconnect", "server-up", ...
inline constexpr char noticed_variable[] = "noticed";  // seconds since the epoch
inline constexpr char server_variable[] = "server";    // server_identity()

// What of a hook's call is kept: the variables that a record is made of, each with 1024 bytes at
// most, and what clients say about themselves with 2048 together.
environment to_event(std::string_view hook, const environment& given, time_t now);

// --- Servers -------------------------------------------------------------------------------------

// What only this process has: the machine's start, the process id, and the process's start in
// ticks.
std::string server_identity(pid_t pid);

// Whether the process with that identity runs.
bool is_running(std::string_view identity);

#endif  // RAVO_OPENVPN_ENVIRONMENT_H
