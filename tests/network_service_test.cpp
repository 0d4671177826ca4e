// The network service of a plain machine, as a program called over the bus, in a network of the
// test's own.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ostra_config.h"
#include "support/daemon.h"
#include "support/files.h"
#include "support/network.h"
#include "support/service.h"
#include "zbservice.h"

namespace {

namespace fs = std::filesystem;
using texts = std::vector<std::string>;

constexpr char profiles_path[] = "/etc/config/vpn_profiles.conf";
constexpr char options_path[] = "/etc/config/vpn_options.conf";
constexpr char lock_path[] = "/etc/config/vpn_options.conf.lck";
constexpr char output_path[] = "/tmp/output";

constexpr char success[] = R"({"error": 0})";
constexpr char bad_request[] = R"({"error": 1})";
constexpr char unreadable[] = R"({"error": 2})";
constexpr char locked[] = R"({"error": 3})";
constexpr char unavailable[] = R"({"error": 4})";
constexpr char no_profiles[] = R"({"error": 0, "data": {}})";

// What happens to a file from now on, by anybody: IN_OPEN, IN_MODIFY, ...
class file_events {
  public:
    file_events(const char* path, uint32_t kinds) : fd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
        EXPECT_GE(inotify_add_watch(fd, path, kinds), 0);
    }
    ~file_events() { close(fd); }
    file_events(const file_events&) = delete;
    file_events& operator=(const file_events&) = delete;

    // Whether one has happened since the last time, or does within this time.
    bool happen(int patience_ms) {
        pollfd event = {fd, POLLIN, 0};
        char events[4096];
        return poll(&event, 1, patience_ms) == 1 && read(fd, events, sizeof events) > 0;
    }

  private:
    int fd;
};

// What the service writes into its output file.
class output_reader {
  public:
    // What it has said since the last time; a line at least.
    std::string next() {
        file_events writing(output_path, IN_MODIFY);
        while (read_file(output_path).size() == seen) {
            if (!writing.happen(10000)) {
                ADD_FAILURE() << "it says nothing";
                break;
            }
        }
        const std::string all = read_file(output_path);
        return all.substr(std::exchange(seen, all.size()));
    }

    // The same, up to this end at least.
    std::string next_with_end(const std::string& end) {
        std::string all = next();
        while (!all.ends_with(end) && !testing::Test::HasFailure()) all += next();
        return all;
    }

  private:
    size_t seen = 0;
};

// The exclusive lock of the options, as a program that saves them has it.
class writer {
  public:
    writer() : handle(Ini_Conf_Write_Lock_File(options_path)) { EXPECT_GE(handle, 0); }
    ~writer() { EXPECT_EQ(Ini_Conf_Unlock_File(handle), 0); }
    writer(const writer&) = delete;
    writer& operator=(const writer&) = delete;

  private:
    const int handle;
};

class network_service : public testing::Test {
  protected:
    std::string list(const std::string& request = "") {
        return service.call("external_dev.list", request);
    }
    std::string update(const std::string& request = "") {
        return service.call("external_dev.update_vpn_gw", request);
    }
    // The first answer that is no success. On a busy machine a reading may be late, and its call is
    // a success then.
    std::string failing_update() {
        std::string answer = success;
        for (int n = 0; n < 100 && answer == success; ++n) answer = update();
        return answer;
    }
    // Lets a reading that is under way end.
    static void await_reading() { const writer saving; }
    std::string gateways(const std::string& request = "") {
        return service.call("api.get_currentGWinfo", request);
    }
    void SetUp() override { EXPECT_EQ(said(), "no VPN gateway\n"); }

    std::string said() { return output.next(); }
    std::string said_with_end(const std::string& end) { return output.next_with_end(end); }

    service_process service{NETWORK_SERVICE, "NetworkService", output_path};
    output_reader output;
};

// --- Profiles ------------------------------------------------------------------------------------

TEST_F(network_service, lists_all_profiles_or_the_one_asked_for) {
    write_file(profiles_path, R"({"OPENVPN_CLIENT3": {"profile": "Office", "mtu": [1, 2.5, null]},
                                  "PPTP_CLIENT1": {"profile": ""}})");
    const std::string office = R"("OPENVPN_CLIENT3": {"profile": "Office", "mtu": [1, 2.5, null]})";
    const std::string all =
        R"({"error": 0, "data": {)" + office + R"(, "PPTP_CLIENT1": {"profile": ""}}})";
    EXPECT_EQ(list(), all);
    EXPECT_EQ(list("{}"), all);
    EXPECT_EQ(list(R"({"other": 1})"), all);
    EXPECT_EQ(list(R"({"key": "OPENVPN_CLIENT3"})"), R"({"error": 0, "data": {)" + office + "}}");
    EXPECT_EQ(list(R"({"key": "OPENVPN_CLIENT"})"), no_profiles);
    EXPECT_EQ(list(R"({"key": ""})"), no_profiles);
}

TEST_F(network_service, entry_without_a_text_profile_is_left_out) {
    write_file(profiles_path, R"({"a": {}, "b": {"profile": 1}, "c": {"profile": null}, "d": 1,
                                  "e": "profile", "f": ["profile"], "g": null, "": {"profile": "x"},
                                  "h": {"profile": {"profile": "x"}}})");
    EXPECT_EQ(list(), R"({"error": 0, "data": {"": {"profile": "x"}}})");
    EXPECT_EQ(list(R"({"key": ""})"), R"({"error": 0, "data": {"": {"profile": "x"}}})");
    EXPECT_EQ(list(R"({"key": "b"})"), no_profiles);
}

TEST_F(network_service, profiles_are_read_anew_each_time) {
    EXPECT_EQ(list(), no_profiles);
    write_file(profiles_path, R"({"a": {"profile": "one"}})");
    EXPECT_EQ(list(), R"({"error": 0, "data": {"a": {"profile": "one"}}})");
    write_file(profiles_path, R"({"a": {"profile": "two"}})");
    EXPECT_EQ(list(), R"({"error": 0, "data": {"a": {"profile": "two"}}})");
    fs::remove(profiles_path);
    EXPECT_EQ(list(R"({"key": "a"})"), no_profiles);
}

TEST_F(network_service, request_for_profiles_that_makes_no_sense_is_bad) {
    write_file(profiles_path, R"({"a": {"profile": "one"}})");
    for (const char* request : {"nonsense", "[]", "\"a\"", "null", "1", " ", R"({"key": 1})",
                                R"({"key": null})", R"({"key": ["a"]})", R"({"key": "a\u0000"})",
                                "{\"key\": \"\xff\"}", R"({"key": "a"} {})"}) {
        SCOPED_TRACE(request);
        EXPECT_EQ(list(request), bad_request);
    }
}

TEST_F(network_service, profiles_file_that_holds_no_object_is_unreadable) {
    for (const char* text : {"", "{", "[]", "5", "null", "\"x\"", "{} {}", "{\"a\": \"\xff\"}"}) {
        SCOPED_TRACE(text);
        write_file(profiles_path, text);
        EXPECT_EQ(list(), unreadable);
        EXPECT_EQ(list(R"({"key": "a"})"), unreadable);
    }
    write_file(profiles_path, R"({"a": {"profile": ")" + std::string(5000000, 'x') + R"("}})");
    EXPECT_EQ(list(), unreadable);
}

// None of these may keep the service waiting.
TEST_F(network_service, only_regular_files_are_read) {
    ASSERT_EQ(mkfifo(profiles_path, 0644), 0);
    EXPECT_EQ(list(), unreadable);
    fs::remove(profiles_path);
    fs::create_directory(profiles_path);
    EXPECT_EQ(list(), unreadable);
    fs::remove(profiles_path);
    fs::create_symlink("/dev/zero", profiles_path);
    EXPECT_EQ(list(), unreadable);
    fs::create_symlink("/dev/zero", options_path);
    EXPECT_EQ(update(), unreadable);
}

TEST_F(network_service, file_that_may_not_be_read_is_unreadable) {
    write_file(profiles_path, "{}");
    ASSERT_EQ(chmod(profiles_path, 0), 0);
    EXPECT_EQ(list(), unreadable);
}

// --- Gateway setting -----------------------------------------------------------------------------

struct setting {
    const char* section;
    const char* line;
};

TEST_F(network_service, tells_the_gateway_setting) {
    const setting cases[] = {
        {R"({"as_gw_en": 0})", "no VPN gateway"},
        {R"({"as_gw_en": 0.9, "gw1": {"sname": "PPTP_CLIENT1"}})", "no VPN gateway"},
        {R"({"as_gw_en": "1", "gw1": {"sname": "PPTP_CLIENT1"}})", "no VPN gateway"},
        {R"({"as_gw_en": true, "gw1": {"sname": "PPTP_CLIENT1"}})", "no VPN gateway"},
        {R"({"gw1": {"sname": "PPTP_CLIENT1"}})", "no VPN gateway"},
        {"{}", "no VPN gateway"},
        {"null", "no VPN gateway"},
        {"[1]", "no VPN gateway"},
        {R"({"as_gw_en": 1, "gw1": {"type": 256, "index": 1, "sname": "PPTP_CLIENT1"}})",
         "gateway PPTP_CLIENT1"},
        {R"({"as_gw_en": 1e300, "gw1": {"sname": "A"}, "gw2": {"sname": "B"}})", "gateway A"},
        {R"({"as_gw_en": -1.5, "gw1": {"sname": "A"}, "failover_en": 0.5})", "gateway A"},
        {R"({"as_gw_en": 1, "gw1": {"sname": "OPENVPN_CLIENT3"}, "failover_en": 1,
             "gw2": {"sname": "PPTP_CLIENT1"}, "failover_interval": 5})",
         "gateway OPENVPN_CLIENT3, backup PPTP_CLIENT1, reverts after 5"},
        {R"({"as_gw_en": 1, "gw1": {"sname": "A"}, "failover_en": 1, "gw2": {"sname": "B"},
             "failover_interval": 10.7})",
         "gateway A, backup B, reverts after 10"},
        {R"({"as_gw_en": 1, "gw1": {"sname": "A"}, "failover_en": 1, "gw2": {"sname": "B"},
             "failover_interval": -1})",
         "gateway A, backup B, does not revert"},
        {R"({"as_gw_en": 1, "gw1": {"sname": "A"}, "failover_en": 1, "gw2": {"sname": "B"},
             "failover_interval": 0})",
         "gateway A, backup B, reverts at once"},
        {R"({"as_gw_en": 1, "gw1": {"sname": "A"}, "failover_en": 1, "gw2": {"sname": "B"}})",
         "gateway A, backup B"},
        {R"({"as_gw_en": 1, "failover_en": 1, "gw2": {"sname": ""}, "failover_interval": 1e99})",
         "gateway (without a name), backup (without a name), reverts after 2147483647"},
        {R"({"as_gw_en": 1, "gw1": {"sname": 5}})", "gateway (without a name)"},
    };
    for (const setting& c : cases) {
        SCOPED_TRACE(c.section);
        write_file(options_path, std::string(R"({"global": {}, "gw_setting": )") + c.section + "}");
        EXPECT_EQ(update(), success);
        EXPECT_EQ(said(), std::string(c.line) + "\n");
    }
}

TEST_F(network_service, gateway_is_told_on_one_plain_line) {
    const auto line_for = [&](const std::string& name) {
        write_file(options_path,
                   R"({"gw_setting": {"as_gw_en": 1, "gw1": {"sname": ")" + name + "\"}}}");
        EXPECT_EQ(update(), success);
        return said();
    };
    EXPECT_EQ(line_for("a\\nb\\u001b[2J\\u007f\\u0085\xc3\xa9%s"),
              "gateway a\\x0ab\\x1b[2J\\x7f\\xc2\\x85\xc3\xa9%s\n");
    EXPECT_EQ(line_for(std::string(64, 'x')), "gateway " + std::string(64, 'x') + "\n");
    EXPECT_EQ(line_for(std::string(100000, 'x')), "gateway " + std::string(64, 'x') + "\n");
    EXPECT_EQ(line_for(std::string(63, 'x') + "\xc3\xa9"),
              "gateway " + std::string(63, 'x') + "\n");
}

TEST_F(network_service, missing_file_or_section_is_no_gateway) {
    EXPECT_EQ(update(), success);
    EXPECT_EQ(said(), "no VPN gateway\n");
    EXPECT_FALSE(fs::exists(options_path));
    write_file(options_path, R"({"global": {"version": "1"}})");
    EXPECT_EQ(update("not looked at"), success);
    EXPECT_EQ(said(), "no VPN gateway\n");
}

constexpr char options_with_gateway[] = R"({"gw_setting": {"as_gw_en": 1, "gw1": {"sname": "A"}}})";

// As for the store, an empty file stands for the template.
TEST_F(network_service, bytes_that_are_no_object_are_no_gateway) {
    for (const char* text : {"", "{", "[]", "5", R"({"gw_setting": {"as_gw_en": 1}} x)"}) {
        SCOPED_TRACE(text);
        write_file(options_path, options_with_gateway);
        EXPECT_EQ(update(), success);
        EXPECT_EQ(said(), "gateway A\n");
        write_file(options_path, text);
        EXPECT_EQ(update(), success);
        const std::string reason =
            std::string("NetworkService: ") + options_path + " holds no JSON object\n";
        const std::string lines = *text == '\0' ? "" : reason;
        EXPECT_EQ(said_with_end("no VPN gateway\n"), lines + "no VPN gateway\n");
    }
}

void put_folder() { fs::create_directory(options_path); }
void put_pipe() { EXPECT_EQ(mkfifo(options_path, 0644), 0); }
void put_large_file() { write_file(options_path, std::string(4 * 1024 * 1024 + 1, ' ')); }

TEST_F(network_service, setting_stays_when_it_cannot_be_read) {
    write_file(options_path, options_with_gateway);
    EXPECT_EQ(update(), success);
    EXPECT_EQ(said(), "gateway A\n");
    for (void (*put)() : {put_folder, put_pipe, put_large_file}) {
        fs::remove(options_path);
        put();
        EXPECT_EQ(failing_update(), unreadable);
        EXPECT_TRUE(said().ends_with(std::string("NetworkService: cannot read ") + options_path +
                                     "; what was known stays: gateway A\n"));
    }
}

TEST_F(network_service, setting_stays_when_it_cannot_be_locked) {
    write_file(options_path, options_with_gateway);
    EXPECT_EQ(update(), success);
    fs::remove(lock_path);
    fs::create_directory(lock_path);
    (void)said();
    EXPECT_EQ(failing_update(), locked);
    EXPECT_TRUE(said().ends_with(std::string("NetworkService: cannot lock ") + options_path +
                                 "; what was known stays: gateway A\n"));
    fs::remove(lock_path);
    EXPECT_EQ(update(), success);
}

// The library waits for a lock for 5 seconds. Well below that: nobody has waited.
constexpr std::chrono::seconds no_waiting{3};
std::chrono::nanoseconds duration_of(const std::function<void()>& action) {
    const auto begin = std::chrono::steady_clock::now();
    action();
    return std::chrono::steady_clock::now() - begin;
}

TEST_F(network_service, writer_is_answered_while_its_lock_is_waited_for) {
    const auto spent = duration_of([&] {
        const writer saving;
        write_file(options_path, "{");
        EXPECT_EQ(update(), success);
        EXPECT_EQ(list(R"({"key": "OPENVPN_CLIENT3"})"), no_profiles);
        EXPECT_EQ(gateways(), R"({"error": 0, "data": []})");
        EXPECT_EQ(read_file(output_path), "no VPN gateway\n");  // of the start
        write_file(options_path, options_with_gateway);
    });
    EXPECT_LT(spent, no_waiting);
    EXPECT_EQ(said(), "gateway A\n");
}

TEST_F(network_service, reads_again_what_is_written_while_it_reads) {
    for (int n = 0; n < 50; ++n) {
        const std::string name = std::to_string(n);
        write_file(options_path,
                   R"({"gw_setting": {"as_gw_en": 1, "gw1": {"sname": ")" + name + "\"}}}");
        EXPECT_EQ(update(), success);
    }
    EXPECT_TRUE(said_with_end("gateway 49\n").ends_with("gateway 49\n"));
}

TEST(network_service_stop, lock_is_not_waited_for) {
    service_process service(NETWORK_SERVICE, "NetworkService");
    const writer saving;
    EXPECT_EQ(service.call("external_dev.update_vpn_gw", ""), success);
    EXPECT_LT(duration_of([&] { EXPECT_EQ(service.stop(SIGTERM), 0); }), no_waiting);
}

TEST_F(network_service, reads_the_setting_beside_other_readers) {
    const int lock = Ini_Conf_Read_Lock_File(options_path);
    ASSERT_GE(lock, 0);
    EXPECT_EQ(update(), success);
    EXPECT_EQ(Ini_Conf_Unlock_File(lock), 0);
}

TEST_F(network_service, gives_the_lock_back) {
    EXPECT_EQ(update(), success);
    put_folder();
    EXPECT_EQ(failing_update(), unreadable);
    const writer saving;
}

TEST_F(network_service, other_methods_leave_the_lock_alone) {
    const writer saving;
    file_events lock_openings(lock_path, IN_OPEN);
    EXPECT_EQ(list(R"({"key": "OPENVPN_CLIENT3"})"), no_profiles);
    EXPECT_EQ(gateways(), R"({"error": 0, "data": []})");
    EXPECT_FALSE(lock_openings.happen(0));
}

TEST(network_service_start, reads_the_setting) {
    write_file(options_path, options_with_gateway);
    const service_process service(NETWORK_SERVICE, "NetworkService", output_path);
    EXPECT_EQ(output_reader().next(), "gateway A\n");
}

TEST(network_service_start, serves_also_when_the_setting_cannot_be_read) {
    put_folder();
    const service_process service(NETWORK_SERVICE, "NetworkService", output_path);
    EXPECT_EQ(output_reader().next(), std::string("NetworkService: cannot read ") + options_path +
                                          "; what was known stays: no VPN gateway\n");
    EXPECT_EQ(service.call("external_dev.list", ""), no_profiles);
}

// A pipe in the place of the output, with both ends in the test's hands.
class output_pipe {
  public:
    output_pipe() {
        EXPECT_EQ(mkfifo(output_path, 0644), 0);
        reader = open(output_path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    }
    ~output_pipe() { close_reader(); }
    output_pipe(const output_pipe&) = delete;
    output_pipe& operator=(const output_pipe&) = delete;

    void close_reader() {
        if (reader >= 0) close(std::exchange(reader, -1));
    }
    static void fill() {
        const int writer = open(output_path, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        const std::string block(4096, 'x');
        while (write(writer, block.data(), block.size()) > 0) {
        }
        close(writer);
    }

  private:
    int reader = -1;
};

TEST(network_service_output, reader_may_leave) {
    output_pipe output;
    const service_process service(NETWORK_SERVICE, "NetworkService", output_path);
    output.close_reader();
    EXPECT_EQ(service.call("external_dev.update_vpn_gw", ""), success);
    EXPECT_EQ(service.call("external_dev.update_vpn_gw", ""), success);
}

TEST(network_service_output, nobody_waits_for_a_reader) {
    const output_pipe output;
    const service_process service(NETWORK_SERVICE, "NetworkService", output_path);
    output_pipe::fill();
    EXPECT_EQ(service.call("external_dev.update_vpn_gw", ""), success);
}

// --- Default routes ------------------------------------------------------------------------------

TEST_F(network_service, lists_the_interfaces_of_the_default_routes) {
    EXPECT_EQ(gateways(), R"({"error": 0, "data": []})");
    make_interface("tun2001");
    make_interface("wan0");
    ip("route add default dev wan0 metric 9");
    ip("-6 route add default dev tun2001");
    EXPECT_EQ(gateways(), R"({"error": 0, "data": [)"
                          R"({"interface_type": "Ethernet", "ifname": "wan0"}, )"
                          R"({"interface_type": "VPN", "ifname": "tun2001"}]})");
    ip("route add default dev tun2001 metric 8");
    EXPECT_EQ(gateways("not looked at"), R"({"error": 0, "data": [)"
                                         R"({"interface_type": "VPN", "ifname": "tun2001"}, )"
                                         R"({"interface_type": "Ethernet", "ifname": "wan0"}]})");
    ip("link del tun2001");
    EXPECT_EQ(gateways(), R"({"error": 0, "data": [)"
                          R"({"interface_type": "Ethernet", "ifname": "wan0"}]})");
}

TEST_F(network_service, name_that_is_no_utf8_is_left_out) {
    make_interface("wan0");
    make_interface("a\x1b\"\xff");
    make_interface("b\x1b\"\\");
    ip("route add default dev a\x1b\"\xff metric 1");
    ip("route add default dev b\x1b\"\\ metric 2");
    ip("route add default dev wan0 metric 3");
    EXPECT_EQ(gateways(), R"({"error": 0, "data": [)"
                          R"({"interface_type": "Ethernet", "ifname": "b\u001B\"\\"}, )"
                          R"({"interface_type": "Ethernet", "ifname": "wan0"}]})");
}

// The kernel refuses this process and its children to ask for routes.
void refuse_netlink() {
    sock_filter rules[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_socket, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AF_NETLINK, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EAFNOSUPPORT),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program = {static_cast<unsigned short>(std::size(rules)), rules};
    ASSERT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
    ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program), 0) << strerror(errno);
}

TEST(network_service_routes, kernel_that_does_not_tell_them_is_an_error) {
    refuse_netlink();
    const service_process service(NETWORK_SERVICE, "NetworkService", output_path);
    output_reader output;
    EXPECT_EQ(output.next(), "no VPN gateway\n");
    EXPECT_EQ(service.call("api.get_currentGWinfo", ""), unavailable);
    EXPECT_EQ(output.next(),
              "NetworkService: cannot read the routes: "
              "Address family not supported by protocol\n");
    EXPECT_EQ(service.call("external_dev.list", ""), no_profiles);
}

// --- The service ---------------------------------------------------------------------------------

TEST_F(network_service, unknown_method_is_not_answered) {
    for (const char* method : {"external_dev", "external_dev.lis", "external_dev.list2",
                               "read_json", "api.get_currentgwinfo"}) {
        EXPECT_EQ(service.call(method, "{}"), zb_strerror(ZB_ERROR_NO_REPLY));
    }
}

TEST_F(network_service, keeps_no_descriptor) {
    write_file(profiles_path, "{}");
    write_file(options_path, "{");
    EXPECT_EQ(gateways(), R"({"error": 0, "data": []})");
    await_reading();
    const texts before = service.open_files();
    for (int n = 0; n < 5; ++n) {
        EXPECT_EQ(service.call("external_dev.list", "", 0), no_profiles);
        EXPECT_EQ(service.call("external_dev.update_vpn_gw", "", 0), success);
        EXPECT_EQ(service.call("api.get_currentGWinfo", "", 0), R"({"error": 0, "data": []})");
    }
    write_file(options_path, options_with_gateway);
    EXPECT_EQ(update(), success);
    EXPECT_TRUE(said_with_end("gateway A\n").ends_with("gateway A\n"));
    await_reading();
    EXPECT_EQ(service.open_files(), before);
}

TEST(network_service_start, closed_standard_streams_lead_nowhere) {
    ready_socket ready;
    const pid_t child = start_process({"/bin/sh", "-c", "exec " NETWORK_SERVICE " <&- >&- 2>&-"},
                                      {.environment = {ready.environment()}});
    ready.wait();
    for (const char* stream : {"0", "1", "2"}) {
        EXPECT_EQ(fs::read_symlink("/proc/" + std::to_string(child) + "/fd/" + stream),
                  "/dev/null");
    }
    kill(child, SIGTERM);
    EXPECT_EQ(wait_for_exit(child), 0);
}

TEST(network_service_stop, signal_stops_it) {
    for (const int sig : {SIGINT, SIGTERM}) {
        service_process service(NETWORK_SERVICE, "NetworkService");
        EXPECT_EQ(service.stop(sig), 0);
    }
}

TEST_F(network_service, second_one_ends_at_once) {
    EXPECT_EQ(run_process({NETWORK_SERVICE}, {.output = "/tmp/second"}), 1);
    EXPECT_EQ(read_file("/tmp/second"),
              "zbservice: cannot create endpoint \"NetworkService\": Address already in use\n");
}

TEST(network_service_stop, takes_no_arguments) {
    for (const char* argument : {"-x", "--help", ""}) {
        EXPECT_EQ(run_process({NETWORK_SERVICE, argument}, {.output = "/tmp/usage"}), 2);
        EXPECT_EQ(read_file("/tmp/usage"), std::string("usage: ") + NETWORK_SERVICE + "\n");
    }
}

}  // namespace
