// ravo-ppp: what pppd's scripts call. Records the connections of PPTP and L2TP servers with ravod.
//
//   ravo-ppp ip-up | ip-down INTERFACE TTY SPEED LOCAL REMOTE [IPPARAM]
//   ravo-ppp replay
//
// Each connection has a pppd of its own, so that is its server here. Whether it is one of a VPN
// server, and of which kind, pppd's option "set" tells: set RAVO_VPN=pptp, or l2tp.
#include <arpa/inet.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "environment.h"
#include "hook.h"
#include "journal.h"
#include "limiter_client.h"

namespace {

constexpr journal_folders folders = {"/run/ravo-ppp", "/var/spool/ravo-ppp"};
constexpr unsigned waiting_events = 10000;

constexpr int exit_done = 0;
constexpr int exit_left = 1;
constexpr int exit_usage = 2;

int usage() {
    (void)fputs(
        "usage: ravo-ppp ip-up | ip-down INTERFACE TTY SPEED LOCAL REMOTE [IPPARAM]\n"
        "       ravo-ppp replay\n",
        stderr);
    return exit_usage;
}

// --- What pppd tells -----------------------------------------------------------------------------

// None: a connection of another kind, such as the machine's own to its provider.
std::optional<vpn_type> type_of(const environment& given) {
    const std::string_view word = given.get("RAVO_VPN");
    if (word == "pptp") return vpn_type::pptp;
    if (word == "l2tp") return vpn_type::l2tp;
    if (!word.empty()) {
        syslog(LOG_ERR, "RAVO_VPN is neither pptp nor l2tp, but %s: nothing is recorded",
               shown(word).c_str());
    }
    return std::nullopt;
}

// The client's address outside of the VPN: servers hand it to pppd as ipparam, which may also be
// anything else.
void keep_source(environment& event, const std::string& ipparam) {
    in6_addr address = {};
    if (inet_pton(AF_INET, ipparam.c_str(), &address) == 1) event.keep("trusted_ip", ipparam);
    if (inet_pton(AF_INET6, ipparam.c_str(), &address) == 1) event.keep("trusted_ip6", ipparam);
}

environment to_event(std::string_view hook, vpn_type type, const environment& given,
                     const std::vector<std::string>& words) {
    const auto pppd = static_cast<pid_t>(given.number("PPPD_PID"));
    environment event = new_event(hook, type, pppd, time(nullptr));
    event.keep("username", given.get("PEERNAME"));
    event.keep("dev", words[0]);
    event.keep("ifconfig_pool_remote_ip", words[4]);
    if (words.size() > 5) keep_source(event, words[5]);
    if (hook == "disconnect") {
        event.keep("time_duration", given.get("CONNECT_TIME"));
        event.keep("bytes_sent", given.get("BYTES_SENT"));
        event.keep("bytes_received", given.get("BYTES_RCVD"));
    }
    return event;
}

// --- Commands ------------------------------------------------------------------------------------

// A connection that comes up is the time to notice which others have lost their pppd.
int record(std::string_view script, const std::vector<std::string>& words) {
    const environment given(environ);
    const std::optional<vpn_type> type = type_of(given);
    if (!type) return exit_done;
    const journal events(folders, waiting_events);
    const auto nothing = [] {};
    if (script == "ip-up") {
        record_apart(
            events,
            {to_event("server-up", *type, given, words), to_event("connect", *type, given, words)},
            nothing);
    } else {
        record_apart(events, {to_event("disconnect", *type, given, words)}, nothing);
    }
    return exit_done;
}

int replay() {
    journal events(folders, waiting_events);
    return events.deliver(journal::when_busy::wait) ? exit_done : exit_left;
}

int run(const std::vector<std::string>& words) {
    if (words.empty()) return usage();
    const std::string& command = words[0];
    if (command == "replay") return replay();
    if ((command != "ip-up" && command != "ip-down") || words.size() < 6) return usage();
    return record(command, {words.begin() + 1, words.end()});
}

}  // namespace

int main(int argc, char** argv) {
    openlog("ravo-ppp", LOG_PID, LOG_DAEMON);
    try {
        return run({argv + (argc > 0), argv + argc});
    } catch (const std::exception&) {
        return exit_done;  // memory has run out; the connection goes on
    }
}
