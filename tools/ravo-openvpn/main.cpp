// ravo-openvpn: what OpenVPN's hooks call. Records sessions with ravod and judges logins.
//
//   ravo-openvpn connect | disconnect | server-up | server-down | auth [FILE] | replay
//
// OpenVPN serves nobody while a hook runs. So a hook only reads what it was given, starts a process
// of its own that does the work, and answers; whatever becomes of the work, the session goes on.
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <exception>
#include <string_view>

#include "configuration.h"
#include "environment.h"
#include "event.h"
#include "hook.h"
#include "journal.h"
#include "login.h"

namespace {

constexpr int exit_done = 0;
constexpr int exit_refused = 1;
constexpr int exit_usage = 1;  // not 2, with which a login is put off
constexpr int exit_deferred = 2;

constexpr std::array<std::string_view, 4> recorded_hooks = {"connect", "disconnect", "server-up",
                                                            "server-down"};

int usage() {
    (void)fputs(
        "usage: ravo-openvpn connect | disconnect | server-up | server-down | auth [FILE] | "
        "replay\n",
        stderr);
    return exit_usage;
}

void tell_unknown_lines(const configuration& settings) {
    for (const std::string& line : settings.unknown_lines) {
        syslog(LOG_ERR, "%s: not understood: %s", configuration_path, line.c_str());
    }
}

// --- Hooks ---------------------------------------------------------------------------------------

int record(std::string_view hook) {
    const configuration settings = read_configuration();
    const environment event = to_event(hook, environment(environ), time(nullptr));
    record_apart({openvpn_folders, settings.waiting_events}, {event},
                 [&] { tell_unknown_lines(settings); });
    return exit_done;
}

int authenticate(const char* file) {
    const configuration settings = read_configuration();
    const login attempt = read_login(environment(environ), file);
    if (attempt.given.get("auth_control_file").empty()) {
        // An OpenVPN before 2.6 waits for the answer.
        (void)signal(SIGPIPE, SIG_IGN);
        return judge(attempt, settings) == verdict::accepted ? exit_done : exit_refused;
    }
    const bool is_started = start_apart([&] {
        tell_unknown_lines(settings);
        const verdict judged = judge(attempt, settings);
        if (judged != verdict::left_to_verifier) answer(attempt, judged == verdict::accepted);
    });
    return is_started ? exit_deferred : exit_refused;
}

int replay() {
    const configuration settings = read_configuration();
    tell_unknown_lines(settings);
    journal events(openvpn_folders, settings.waiting_events);
    const bool is_done = events.deliver(journal::when_busy::wait);
    return is_done ? exit_done : exit_refused;
}

int run(int argc, char** argv) {
    // OpenVPN adds words of its own behind the hook's name.
    const std::string_view hook = argc > 1 ? argv[1] : "";
    if (std::find(recorded_hooks.begin(), recorded_hooks.end(), hook) != recorded_hooks.end()) {
        return record(hook);
    }
    if (hook == "auth") return authenticate(argc > 2 ? argv[2] : nullptr);
    if (hook == "replay") return replay();
    return usage();
}

}  // namespace

int main(int argc, char** argv) {
    openlog("ravo-openvpn", LOG_PID, LOG_DAEMON);
    try {
        return run(argc, argv);
    } catch (const std::exception&) {
        // Memory has run out. A session goes on, a login does not.
        return argc > 1 && std::string_view(argv[1]) == "auth" ? exit_refused : exit_done;
    }
}
