// What the hooks of OpenVPN make of the variables that they are given, and their journal with a
// real daemon: whenever its owner is killed, each event is recorded once and in its turn.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "configuration.h"
#include "environment.h"
#include "event.h"
#include "journal.h"
#include "limiter_client.h"
#include "ravo_api.h"
#include "session.h"
#include "support/daemon.h"
#include "support/files.h"
#include "support/kill_at.h"

namespace {

namespace fs = std::filesystem;
using texts = std::vector<std::string>;
using variables = std::vector<std::pair<std::string, std::string>>;

environment with(const variables& given) {
    environment result;
    for (const auto& [name, value] : given) result.set(name, value);
    return result;
}

std::string repeated(const std::string& text, size_t count) {
    std::string result;
    for (size_t n = 0; n < count; ++n) result += text;
    return result;
}

// --- Variables -----------------------------------------------------------------------------------

TEST(openvpn_environment, survives_its_bytes) {
    const char* given[] = {
        "a=1", "empty=", "two=a=b", "=nameless", "no equals sign", "raw=\xff\n'\"%s", nullptr};
    const environment read(given);
    EXPECT_EQ(read.variables(),
              (variables{{"a", "1"}, {"empty", ""}, {"two", "a=b"}, {"raw", "\xff\n'\"%s"}}));
    EXPECT_EQ(environment(read.bytes()).variables(), read.variables());
    EXPECT_EQ(environment(read.bytes() + "cut=of").variables(), read.variables());
    EXPECT_TRUE(environment(static_cast<char**>(nullptr)).variables().empty());
    EXPECT_TRUE(environment(std::string_view()).variables().empty());
}

TEST(openvpn_environment, numbers_are_decimal_or_0) {
    const std::pair<const char*, uint64_t> cases[] = {{"0", 0},
                                                      {"17", 17},
                                                      {"18446744073709551615", UINT64_MAX},
                                                      {"18446744073709551616", UINT64_MAX},
                                                      {"", 0},
                                                      {"-1", 0},
                                                      {"+1", 0},
                                                      {" 1", 0},
                                                      {"1 ", 0},
                                                      {"0x10", 0},
                                                      {"1.5", 0}};
    for (const auto& [text, number] : cases) {
        EXPECT_EQ(with({{"n", text}}).number("n"), number) << text;
    }
    EXPECT_EQ(environment().number("n"), 0U);
}

TEST(openvpn_environment, event_keeps_what_a_record_needs_and_no_more) {
    const environment event = to_event("connect",
                                       with({{"username", std::string(5000, 'u')},
                                             {"password", "secret"},
                                             {"PATH", "/bin"},
                                             {"UV_A", std::string(1500, 'a')},
                                             {"UV_B", std::string(1500, 'b')},
                                             {"UV_C", "c"},
                                             {"daemon_pid", std::to_string(getpid())}}),
                                       77);
    EXPECT_EQ(event.get("hook"), "connect");
    EXPECT_EQ(event.number("noticed"), 77U);
    EXPECT_EQ(event.get("username").size(), 1024U);
    EXPECT_EQ(event.get("UV_A").size(), 1024U);
    EXPECT_EQ(event.get("UV_C"), "c");
    for (const char* name : {"password", "PATH", "UV_B"}) EXPECT_EQ(event.get(name), "") << name;
}

TEST(openvpn_environment, server_runs_until_it_ends) {
    EXPECT_TRUE(is_running(server_identity(getpid())));
    const pid_t child = start_process({"/bin/sh", "-c", "exit 0"});
    const std::string identity = server_identity(child);  // a zombie is there, too
    EXPECT_EQ(wait_for_exit(child), 0);
    EXPECT_FALSE(is_running(identity));
    std::string earlier_boot = server_identity(getpid());
    earlier_boot[0] = earlier_boot[0] == 'a' ? 'b' : 'a';
    for (const std::string& text :
         {earlier_boot, server_identity(getpid()) + "1", std::string(), std::string("/"),
          std::string("//"), std::string("a/b/c"), server_identity(0), server_identity(-5)}) {
        EXPECT_FALSE(is_running(text)) << text;
    }
}

TEST(openvpn_environment, server_is_known_by_its_start_as_long_as_that_is_known) {
    const std::tuple<const char*, const char*, bool> cases[] = {
        {"boot/17/5", "boot/17/5", true}, {"boot/17/5", "boot/17/6", false},
        {"boot/17/5", "boot/17/", true},  {"boot/17/5", "boot/1/", false},
        {"boot/17/", "boot/18/", false},  {"other/17/5", "boot/17/", false}};
    for (const auto& [one, other, is_same] : cases) {
        EXPECT_EQ(is_same_server(one, other), is_same) << one << " " << other;
        EXPECT_EQ(is_same_server(other, one), is_same) << one << " " << other;
    }
}

// --- Records -------------------------------------------------------------------------------------

TEST(openvpn_session, columns) {
    const environment given = with({{"username", "zo\xc3\xab"},
                                    {"vpn_type", "4"},
                                    {"common_name", "client"},
                                    {"time_unix", "1000"},
                                    {"time_duration", "9"},
                                    {"trusted_ip", "203.0.113.13"},
                                    {"dev", "tun0"},
                                    {"ifconfig_pool_remote_ip", "10.88.0.4"},
                                    {"bytes_sent", "27323"},
                                    {"bytes_received", "27161"},
                                    {"UV_Z", "last"},
                                    {"UV_DEVICE", "laptop"},
                                    {"IV_VER", "2.6.14"},
                                    {"IV_PLAT", "linux"}});
    const db_conn_server_log row = to_connection(given, session_action::disconnected);
    EXPECT_STREQ(row.username, "zo\xc3\xab");
    EXPECT_EQ(row.vpn_type, 4);
    EXPECT_EQ(row.uptime, 9U);
    EXPECT_EQ(row.time, 1009U);
    EXPECT_STREQ(row.device_info, "linux 2.6.14 laptop last");
    EXPECT_STREQ(row.source_ip, "203.0.113.13");
    EXPECT_STREQ(row.vpn_ip, "10.88.0.4");
    EXPECT_EQ(row.tx_total, 27323);
    EXPECT_EQ(row.rx_total, 27161);
    EXPECT_STREQ(row.outgoing, "tun0");
    EXPECT_EQ(row.action, 2);
    const db_conn_server_log lost = to_lost_connection(with({{"time_unix", "1000"}}), 1500);
    EXPECT_EQ(lost.uptime, 500U);
    EXPECT_EQ(lost.time, 1500U);
    EXPECT_EQ(lost.action, 3);
    EXPECT_EQ(to_lost_connection(with({{"time_unix", "1000"}}), 900).time, 1000U);
}

TEST(openvpn_session, either_address_family_and_no_user_name) {
    const environment given = with({{"common_name", "client"},
                                    {"trusted_ip6", "2001:db8::1"},
                                    {"ifconfig_pool_remote_ip", "10.0.0.2"},
                                    {"ifconfig_pool_remote_ip6", "fd00::2"},
                                    {"time_unix", "18446744073709551615"},
                                    {"time_duration", "1"},
                                    {"bytes_sent", "-1"},
                                    {"bytes_received", "18446744073709551615"}});
    const db_conn_server_log row = to_connection(given, session_action::connected);
    EXPECT_STREQ(row.username, "client");
    EXPECT_STREQ(row.source_ip, "2001:db8::1");
    EXPECT_STREQ(row.vpn_ip, "10.0.0.2 fd00::2");
    EXPECT_EQ(row.time, UINT64_MAX);
    EXPECT_EQ(row.tx_total, 0);
    EXPECT_EQ(row.rx_total, INT64_MAX);
}

TEST(openvpn_session, texts_end_before_a_characters_middle) {
    const std::pair<std::string, size_t> cases[] = {
        {std::string(1024, 'x'), 1024},
        {std::string(1025, 'x'), 1024},
        {std::string(1023, 'x') + "\xc3\xab", 1023},
        {std::string(1022, 'x') + "\xc3\xab", 1024},
        {std::string(1021, 'x') + "\xf0\x9f\x98\x80", 1021},
        {repeated("\xe2\x82\xac", 500), 1023},
        {std::string(2000, '\x80'), 1024}};  // no UTF-8
    for (const auto& [name, length] : cases) {
        const db_conn_server_log row = to_connection(with({{"username", name}}), {});
        EXPECT_EQ(std::string(row.username), name.substr(0, length));
    }
}

TEST(openvpn_session, key_tells_sessions_apart) {
    const variables first = {{"server", "boot/17/5"},
                             {"time_unix", "1"},
                             {"trusted_ip", "a"},
                             {"trusted_port", "2"},
                             {"username", "u"}};
    const std::string key = session_key(with(first));
    EXPECT_EQ(key, session_key(with(first)));
    for (size_t n = 0; n < first.size(); ++n) {
        variables other = first;
        other[n].second += "0";
        EXPECT_NE(session_key(with(other)), key) << first[n].first;
    }
}

TEST(openvpn_session, client_that_moves_stays_in_its_session) {
    const variables first = {{"server", "boot/17/5"},
                             {"time_unix", "1"},
                             {"ifconfig_pool_remote_ip", "10.0.0.2"},
                             {"username", "u"},
                             {"trusted_ip", "a"}};
    variables moved = first;
    moved.back().second = "b";
    EXPECT_TRUE(is_same_session(with(first), with(moved)));
    for (size_t n = 0; n + 1 < first.size(); ++n) {
        variables other = moved;
        other[n].second += "0";
        EXPECT_FALSE(is_same_session(with(first), with(other))) << first[n].first;
    }
    EXPECT_FALSE(is_same_session(with({{"trusted_ip", "a"}}), with({{"trusted_ip", "b"}})));
    EXPECT_TRUE(is_same_session(with({{"trusted_ip", "a"}}), with({{"trusted_ip", "a"}})));
}

TEST(openvpn_session, device_needs_a_hardware_address) {
    const std::pair<const char*, const char*> cases[] = {{"26:30:2d:70:37:d8", "26:30:2d:70:37:d8"},
                                                         {"26-30-2D-70-37-D8", "26:30:2d:70:37:d8"},
                                                         {"", nullptr},
                                                         {"26:30:2d:70:37:d", nullptr},
                                                         {"26:30:2d:70:37:d88", nullptr},
                                                         {"26:30:2d:70:37:dg", nullptr},
                                                         {"26302d7037d8", nullptr},
                                                         {"2630:2d:70:37:d8:", nullptr},
                                                         {"00:00:00:00:00:00", nullptr},
                                                         {"FF:FF:FF:FF:FF:FF", nullptr},
                                                         {"' OR 1=1; -- xx", nullptr}};
    for (const auto& [given, mac] : cases) {
        const auto device = to_device(with({{"IV_HWADDR", given}, {"username", "u"}}));
        ASSERT_EQ(device.has_value(), mac != nullptr) << given;
        if (device) {
            EXPECT_STREQ(device->mac, mac);
        }
    }
    const auto device = to_device(with({{"IV_HWADDR", "26:30:2d:70:37:d8"},
                                        {"username", "alice"},
                                        {"dev", "tun0"},
                                        {"UV_DEVICE", "laptop"},
                                        {"time_unix", "5"},
                                        {"ifconfig_pool_remote_ip", "10.0.0.2"}}));
    EXPECT_STREQ(device->ip, "10.0.0.2");
    EXPECT_STREQ(device->user_id, "alice");
    EXPECT_STREQ(device->dev_name, "laptop");
    EXPECT_STREQ(device->nic, "tun0");
    EXPECT_EQ(device->time, 5U);
}

TEST(openvpn_session, limiter_is_not_asked_about_some_names) {
    for (const std::string& name : {std::string(), std::string("100%"), std::string("a\nb"),
                                    std::string("a\x7f"), std::string(1025, 'x')}) {
        EXPECT_NE(limiter_objection(name), nullptr) << name;
    }
    for (const std::string& name : {std::string("o'brien"), std::string("zo\xc3\xab"),
                                    std::string("$(reboot)`;|&"), std::string(1024, 'x')}) {
        EXPECT_EQ(limiter_objection(name), nullptr) << name;
    }
    EXPECT_EQ(shown("a\nb\x1b[2J"), "a?b?[2J");
    EXPECT_EQ(shown(std::string(500, 'x')).size(), 200U);
}

// --- Settings ------------------------------------------------------------------------------------

TEST(openvpn_configuration, lines) {
    const configuration none = parse_configuration("");
    EXPECT_TRUE(none.verifier.empty());
    EXPECT_TRUE(none.is_open_without_limiter);
    const configuration all = parse_configuration(
        "# comment\n\n  verifier   /bin/check -a b\nverifier-seconds 7\nwithout-limiter closed\n"
        "waiting-events 5");
    EXPECT_EQ(all.verifier, (texts{"/bin/check", "-a", "b"}));
    EXPECT_EQ(all.verifier_seconds, 7U);
    EXPECT_FALSE(all.is_open_without_limiter);
    EXPECT_EQ(all.waiting_events, 5U);
    EXPECT_TRUE(all.unknown_lines.empty());
    for (const char* line :
         {"verifier", "verifier relative", "verifier-seconds 0", "verifier-seconds 301",
          "verifier-seconds x", "verifier-seconds 5 6", "without-limiter", "without-limiter ajar",
          "waiting-events 0", "waiting-events 100001", "nonsense"}) {
        const configuration settings = parse_configuration(line);
        EXPECT_EQ(settings.unknown_lines, texts{line});
        EXPECT_EQ(settings.verifier_seconds, none.verifier_seconds);
        EXPECT_EQ(settings.waiting_events, none.waiting_events);
    }
}

// --- The journal ---------------------------------------------------------------------------------

constexpr unsigned many = 10000;

environment event_of(const std::string& hook, const std::string& user,
                     const std::string& server = server_identity(getpid())) {
    return with({{"hook", hook},
                 {"noticed", "1500"},
                 {"server", server},
                 {"username", user},
                 {"time_unix", "1000"},
                 {"trusted_ip", "203.0.113.1"},
                 {"trusted_port", "5"},
                 {"bytes_sent", hook == "disconnect" ? "7" : ""}});
}

bool deliver(unsigned most = many) {
    return journal(openvpn_folders, most).deliver(journal::when_busy::wait);
}

// Each record as "ACTION NAME", oldest first.
texts records() {
    db_query_cond all = {};
    all.count = -1;
    db_conn_server_log_query header = {};
    db_conn_server_log_query* query = &header;
    (void)list_conn_server_log(&all, &query);
    EXPECT_NE(header.data, nullptr);
    texts list;
    for (uint64_t n = 0; n < header.count; ++n) {
        list.push_back(std::to_string(header.data[n].action) + " " + header.data[n].username);
    }
    free(header.data);
    return list;
}

size_t files_in(const std::string& folder) {
    return static_cast<size_t>(
        std::distance(fs::directory_iterator(openvpn_folders.spool + ("/" + folder)), {}));
}

TEST(openvpn_journal, waits_for_the_daemon_and_keeps_the_order) {
    texts expected;
    for (int n = 0; n < 12; ++n) {
        const std::string user = "user" + std::to_string(n);
        EXPECT_TRUE(journal(openvpn_folders, many).take(event_of("connect", user)));
        expected.push_back("1 " + user);
        if (n == 5) {
            EXPECT_FALSE(deliver());
            EXPECT_EQ(files_in("waiting"), 6U);
            EXPECT_TRUE(fs::is_empty(openvpn_folders.run + std::string("/new")));
        }
    }
    const ravod_process ravod;
    EXPECT_TRUE(deliver());
    EXPECT_EQ(records(), expected);
    EXPECT_EQ(files_in("waiting"), 0U);
    EXPECT_EQ(files_in("open"), 12U);
    EXPECT_TRUE(deliver());
    EXPECT_EQ(records(), expected);
}

TEST(openvpn_journal, is_bounded) {
    for (int n = 0; n < 5; ++n) {
        EXPECT_EQ(journal(openvpn_folders, 3).take(event_of("connect", std::to_string(n))), n < 3);
    }
    EXPECT_FALSE(deliver(3));
    EXPECT_TRUE(journal(openvpn_folders, 3).take(event_of("connect", "late")));
    EXPECT_FALSE(deliver(3));
    EXPECT_EQ(files_in("waiting"), 3U);
    const ravod_process ravod;
    EXPECT_TRUE(deliver(3));
    EXPECT_EQ(records(), (texts{"1 0", "1 1", "1 2"}));
}

TEST(openvpn_journal, files_that_are_no_events_do_not_stop_it) {
    ASSERT_TRUE(make_folders(openvpn_folders.spool + std::string("/waiting")));
    write_file(openvpn_folders.spool + std::string("/waiting/1"), "nonsense");
    write_file(openvpn_folders.spool + std::string("/waiting/2"), "");
    write_file(openvpn_folders.spool + std::string("/waiting/3"), event_of("connect", "a").bytes());
    write_file(openvpn_folders.spool + std::string("/waiting/.4"), "a draft");
    ASSERT_TRUE(make_folders(openvpn_folders.spool + std::string("/waiting/5")));
    const ravod_process ravod;
    EXPECT_TRUE(deliver());
    EXPECT_EQ(records(), texts{"1 a"});
}

TEST(openvpn_journal, server_closes_what_dead_servers_have_left) {
    const std::string dead = server_identity(getpid()) + "1";
    const std::string other = server_identity(getppid());
    const ravod_process ravod;
    const journal events(openvpn_folders, many);
    EXPECT_TRUE(events.take(event_of("connect", "of_dead", dead)));
    EXPECT_TRUE(events.take(event_of("connect", "of_other", other)));
    EXPECT_TRUE(events.take(event_of("connect", "ended")));
    EXPECT_TRUE(events.take(event_of("connect", "ends_later", dead)));
    EXPECT_TRUE(events.take(event_of("disconnect", "ended")));
    EXPECT_TRUE(events.take(event_of("server-up", "")));
    EXPECT_TRUE(events.take(event_of("disconnect", "ends_later", dead)));
    EXPECT_TRUE(events.take(event_of("connect", "of_mine")));
    EXPECT_TRUE(events.take(event_of("server-down", "")));
    EXPECT_TRUE(deliver());
    EXPECT_EQ(records(), (texts{"1 of_dead", "1 of_other", "1 ended", "1 ends_later", "2 ended",
                                "3 of_dead", "2 ends_later", "1 of_mine", "3 of_mine"}));
    EXPECT_EQ(files_in("open"), 1U);
}

// Killed before each change that it makes to a file, the last of which follow the daemon's answer.
TEST(openvpn_journal, nothing_twice_and_nothing_lost_when_it_is_killed) {
    const ravod_process ravod;
    setenv("ASAN_OPTIONS", "detect_leaks=0", 1);  // which cannot look for them while traced
    const journal events(openvpn_folders, many);
    bool was_killed = true;
    int n = 0;
    while (was_killed) {
        clean_conn_server_log();
        EXPECT_TRUE(events.take(event_of("connect", "b")));
        EXPECT_TRUE(deliver());
        EXPECT_TRUE(events.take(event_of("connect", "a")));
        EXPECT_TRUE(events.take(event_of("disconnect", "a")));
        EXPECT_TRUE(events.take(event_of("server-down", "")));
        was_killed = kill_at_change({RAVO_OPENVPN, "replay"}, ++n);
        EXPECT_TRUE(deliver());
        EXPECT_EQ(records(), (texts{"1 b", "1 a", "2 a", "3 b"})) << "killed at change " << n;
        EXPECT_EQ(files_in("open"), 0U);
    }
    EXPECT_GT(n, 12);
}

TEST(openvpn_journal, nothing_twice_when_it_is_killed_on_the_way_to_the_disk) {
    const int changes = 6;  // and some more
    setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
    texts expected;
    for (int n = 1; n <= changes; ++n) {
        expected.push_back("1 " + std::to_string(n));
        EXPECT_TRUE(journal(openvpn_folders, many).take(event_of("connect", std::to_string(n))));
        EXPECT_TRUE(kill_at_change({RAVO_OPENVPN, "replay"}, n));
    }
    const ravod_process ravod;
    EXPECT_TRUE(deliver());
    EXPECT_EQ(records(), expected);
}

}  // namespace
