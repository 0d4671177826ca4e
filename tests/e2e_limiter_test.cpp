// The login-attempt limiter as its users meet it: the client library, the running daemon, the
// settings service and the notifier, all real.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/inotify.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "ravo_api.h"
#include "support/daemon.h"
#include "support/files.h"
#include "zbservice.h"

namespace {

namespace fs = std::filesystem;
using texts = std::vector<std::string>;

constexpr char settings_path[] = "/etc/config/vpn_block.conf";
constexpr char notifications_path[] = "/var/log/network/notifications.jsonl";
constexpr int patience_ms = 20000;

void set_limiter(const std::string& members) {
    write_file(settings_path, R"({"global": {)" + members + "}}");
}

int fail(std::string user) { return add_privilege_user_block(user.data()); }
int check(std::string user) { return check_privilege_user_block(user.data()); }
int lift(std::string user) { return delete_privilege_user_block(user.data()); }

struct listed_user {
    std::string name;
    int failures;
    time_t last;
};

std::vector<listed_user> listing() {
    db_query_cond cond = {};
    cond.count = -1;
    db_privilege_user_block_query header = {};
    db_privilege_user_block_query* result = &header;
    EXPECT_EQ(list_privilege_user_block(&cond, &result), 0);
    EXPECT_NE(header.data, nullptr);
    std::vector<listed_user> users;
    for (uint64_t n = 0; n < header.count; ++n) {
        const db_privilege_user_block_data& row = header.data[n];
        users.push_back({row.username, row.limit, static_cast<time_t>(row.timestamp)});
    }
    free(header.data);
    return users;
}

// "USER FAILURES" of each row.
texts counts() {
    texts all;
    for (const listed_user& user : listing()) {
        all.push_back(user.name + " " + std::to_string(user.failures));
    }
    return all;
}

// Moves a user's last failure into the past, from outside.
void age(const std::string& user, int seconds) {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open_v2(db_path, &db, SQLITE_OPEN_READWRITE, nullptr), SQLITE_OK);
    char* text = sqlite3_mprintf(
        "UPDATE privilege_user_block SET timestamp = timestamp - %d WHERE username = '%q';",
        seconds, user.c_str());
    EXPECT_EQ(sqlite3_exec(db, text, nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_free(text);
    sqlite3_close(db);
}

// The settings service of this build, or what the variable VPNCAAS names in its place.
std::string vpncaas_path() {
    const char* other = getenv("VPNCAAS");
    return other != nullptr ? other : VPNCAAS;
}

// The settings service as a process.
class settings_service {
  public:
    settings_service() {
        ready_socket ready;
        pid = start_process({vpncaas_path()}, {.environment = {ready.environment()}});
        ready.wait();
    }
    ~settings_service() {
        kill(pid, SIGTERM);
        EXPECT_EQ(wait_for_exit(pid), 0);
    }
    settings_service(const settings_service&) = delete;
    settings_service& operator=(const settings_service&) = delete;

  private:
    pid_t pid;
};

// Waits for lines in the notifications file.
class notification_file {
  public:
    notification_file() : fd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
        EXPECT_GE(inotify_add_watch(fd, "/var/log/network", IN_CLOSE_WRITE), 0);
    }
    ~notification_file() { close(fd); }
    notification_file(const notification_file&) = delete;
    notification_file& operator=(const notification_file&) = delete;

    // The texts once there are so many; those of the moment when they do not come. Notifiers that
    // run at the same time write in any order.
    texts wait(size_t count) {
        while (told().size() < count) {
            pollfd event = {fd, POLLIN, 0};
            if (poll(&event, 1, patience_ms) != 1) break;
            char changes[4096];
            while (read(fd, changes, sizeof changes) > 0) {
            }
        }
        return told();
    }

  private:
    static texts told() {
        texts all;
        for (const std::string& line : split_lines(read_file(notifications_path))) {
            const size_t start = line.find("\"text\":\"") + 8;
            all.push_back(line.substr(start, line.rfind('"') - start));
        }
        return all;
    }

    int fd;
};

std::string blocked(const std::string& user) {
    return "[RAVO Service] Username: " + user +
           " has been blocked because reach the login attempt limit.";
}
std::string unblocked(const std::string& user) {
    return "[RAVO Service] Unblock the user: Username: " + user + ".";
}

// Processes of this root have consecutive ids: what a new one gets tells how many there were.
pid_t next_pid() {
    const pid_t child = fork();
    if (child == 0) _exit(0);
    waitpid(child, nullptr, 0);
    return child + 1;
}

// A process's children, those included that have ended and are not reaped.
std::string children_of(pid_t parent) {
    const std::string pid = std::to_string(parent);
    const std::string path = "/proc/" + pid + "/task/" + pid + "/children";
    EXPECT_TRUE(fs::exists(path)) << "the kernel does not tell a process's children";
    return read_file(path);
}

class e2e_limiter : public testing::Test {
  protected:
    void SetUp() override {
        fs::create_directories("/usr/local/sbin");
        fs::create_symlink(NOTIFY, "/usr/local/sbin/notify");
        set_limiter(R"("enable": true, "limit": 3, "time": 5)");
        vpncaas.emplace();
        daemon.emplace();
    }

    notification_file notifications;
    std::optional<settings_service> vpncaas;
    std::optional<ravod_process> daemon;
};

TEST_F(e2e_limiter, guesser_is_blocked_noticed_and_let_go) {
    EXPECT_EQ(fail("mallory"), 0);
    EXPECT_EQ(fail("mallory"), 0);
    EXPECT_EQ(check("mallory"), 0);
    EXPECT_EQ(fail("mallory"), 0);
    EXPECT_EQ(notifications.wait(1), texts{blocked("mallory")});
    EXPECT_EQ(check("mallory"), 1);
    EXPECT_EQ(check("alice"), 0);
    EXPECT_EQ(counts(), texts{"mallory 3"});
    EXPECT_EQ(lift("mallory"), 0);
    EXPECT_EQ(notifications.wait(2), (texts{blocked("mallory"), unblocked("mallory")}));
    EXPECT_EQ(check("mallory"), 0);
    EXPECT_EQ(counts(), texts{});
}

TEST_F(e2e_limiter, fourth_failure_restarts_the_block) {
    for (int n = 0; n < 3; ++n) EXPECT_EQ(fail("mallory"), 0);
    age("mallory", 290);
    EXPECT_EQ(check("mallory"), 1);
    const time_t before = time(nullptr);
    EXPECT_EQ(fail("mallory"), 0);
    ASSERT_EQ(counts(), texts{"mallory 4"});
    EXPECT_GE(listing()[0].last, before);
    age("mallory", 200);
    EXPECT_EQ(check("mallory"), 1);
    EXPECT_EQ(notifications.wait(1), texts{blocked("mallory")});
    // Past the limit the release is not told.
    EXPECT_EQ(lift("mallory"), 0);
    EXPECT_EQ(check("mallory"), 0);
    EXPECT_EQ(notifications.wait(1), texts{blocked("mallory")});
}

TEST_F(e2e_limiter, block_runs_out) {
    for (int n = 0; n < 4; ++n) EXPECT_EQ(fail("mallory"), 0);
    EXPECT_EQ(notifications.wait(1), texts{blocked("mallory")});
    age("mallory", 300);
    EXPECT_EQ(check("mallory"), 0);
    EXPECT_EQ(notifications.wait(2), (texts{blocked("mallory"), unblocked("mallory")}));
    EXPECT_EQ(counts(), texts{});
}

TEST_F(e2e_limiter, counts_and_blocks_survive_a_restart) {
    for (int n = 0; n < 3; ++n) EXPECT_EQ(fail("mallory"), 0);
    EXPECT_EQ(fail("alice"), 0);
    daemon.reset();
    EXPECT_LT(check("mallory"), 0);
    daemon.emplace();
    EXPECT_EQ(counts(), (texts{"mallory 3", "alice 1"}));
    EXPECT_EQ(check("mallory"), 1);
    EXPECT_EQ(fail("alice"), 0);
    EXPECT_EQ(counts(), (texts{"mallory 3", "alice 2"}));
}

TEST_F(e2e_limiter, clean_releases_everybody) {
    for (int n = 0; n < 3; ++n) EXPECT_EQ(fail("mallory"), 0);
    EXPECT_EQ(fail("alice"), 0);
    EXPECT_EQ(notifications.wait(1).size(), 1U);
    EXPECT_EQ(clean_privilege_user_block(), 0);
    EXPECT_EQ(notifications.wait(2), (texts{blocked("mallory"), unblocked("mallory")}));
    EXPECT_EQ(counts(), texts{});
}

TEST_F(e2e_limiter, check_while_switched_off_forgets_everybody) {
    for (int n = 0; n < 3; ++n) EXPECT_EQ(fail("mallory"), 0);
    set_limiter(R"("enable": false, "limit": 3, "time": 5)");
    EXPECT_EQ(counts(), texts{"mallory 3"});
    EXPECT_EQ(check("somebody"), 0);
    EXPECT_EQ(counts(), texts{});
    EXPECT_EQ(notifications.wait(1), texts{blocked("mallory")});
}

TEST_F(e2e_limiter, without_the_settings_service_failures_count_and_nobody_is_blocked) {
    vpncaas.reset();
    for (int n = 0; n < 3; ++n) EXPECT_EQ(fail("mallory"), 0);
    EXPECT_EQ(check("mallory"), 0);
    EXPECT_EQ(counts(), texts{"mallory 3"});
    EXPECT_NE(read_file(log_path).find(
                  "check_privilege_user_block:check_privilege_user_block: zb failed. zbsh "
                  "vpncaas.read_json path=/etc/config/vpn_block.conf\n"),
              std::string::npos);
    vpncaas.emplace();
    EXPECT_EQ(check("mallory"), 1);
    EXPECT_FALSE(fs::exists(notifications_path));
}

TEST_F(e2e_limiter, without_the_settings_file_nobody_is_blocked) {
    fs::remove(settings_path);
    for (int n = 0; n < 3; ++n) EXPECT_EQ(fail("mallory"), 0);
    EXPECT_EQ(check("mallory"), 0);
    EXPECT_EQ(counts(), texts{"mallory 3"});
    EXPECT_NE(
        read_file(log_path).find(
            R"(easy_zb_call: vpncaas.read_json {"path": "/etc/config/vpn_block.conf"} failed)"),
        std::string::npos);
}

// The reply to a method, as it lies on the bus; the bus's failure in words.
std::string call(const char* method, const std::string& request) {
    zb_io* io = zb_io_create();
    EXPECT_EQ(zb_io_write(io, request.data(), request.size()), 0);
    const int result = zb_call("@/var/run/ravod.sock", method, io, 20, -1);
    size_t length = 0;
    const char* reply = static_cast<const char*>(zb_io_read(io, &length));
    std::string bytes = result == 0 ? std::string(reply, length) : zb_strerror(result);
    zb_io_free(io);
    return bytes;
}

TEST_F(e2e_limiter, replies_are_bare_text) {
    for (int n = 0; n < 3; ++n) EXPECT_EQ(call("db_privilege_user_block_insert", "mallory"), "");
    EXPECT_EQ(call("db_privilege_user_block_check", "mallory"), "1");
    EXPECT_EQ(call("db_privilege_user_block_check", "alice"), "0");
    EXPECT_EQ(call("db_privilege_user_block_del", "mallory"), "");
    EXPECT_EQ(call("db_privilege_user_block_clean", ""), "");
    vpncaas.reset();
    EXPECT_EQ(call("db_privilege_user_block_check", "mallory"), "-1");
}

TEST_F(e2e_limiter, request_is_a_name_with_or_without_its_NUL) {
    EXPECT_EQ(call("db_privilege_user_block_insert", "alice"), "");
    EXPECT_EQ(call("db_privilege_user_block_insert", std::string("alice\0", 6)), "");
    EXPECT_EQ(call("db_privilege_user_block_insert", std::string("alice\0bob", 9)), "");
    EXPECT_EQ(call("db_privilege_user_block_insert", ""), "");
    EXPECT_EQ(counts(), (texts{"alice 3", " 1"}));
}

TEST_F(e2e_limiter, hostile_names_leave_the_daemon_alive) {
    EXPECT_EQ(fail("alice"), 0);
    EXPECT_EQ(fail("alice"), 0);
    for (const std::string& name :
         {std::string("%s"), std::string("%n"), std::string("%z"), std::string("%999999999d"),
          std::string("%.2147483647c"), std::string("%c, limit_count=0 --"),
          std::string(2000, '\''), std::string(5000, 'x'), std::string(1000000, '%'),
          std::string("\xff\n{0}\x1b[2J")}) {
        for (int n = 0; n < 3; ++n) EXPECT_EQ(fail(name), 0);
        EXPECT_GE(check(name), 0);
    }
    EXPECT_EQ(counts()[0], "alice 2");
    EXPECT_EQ(fail("alice"), 0);
    EXPECT_EQ(check("alice"), 1);
    std::string status = read_file("/proc/" + std::to_string(daemon->pid()) + "/status");
#if !defined(__SANITIZE_ADDRESS__) && !defined(SANITIZED_BUILD)
    status = status.substr(status.find("VmHWM:") + 6);
    EXPECT_LT(std::stol(status), 64 * 1024);  // KiB
#endif
}

// A notification takes two processes: one that the daemon reaps, and the notifier, which it does
// not know.
TEST_F(e2e_limiter, notification_costs_two_processes_and_leaves_none) {
    // The leak sanitizer's search at a notifier's end takes an id as well.
    daemon.reset();
    daemon.emplace(texts{}, process_options{.environment = {"ASAN_OPTIONS=detect_leaks=0"}});
    EXPECT_EQ(fail("mallory"), 0);
    pid_t before = next_pid();
    EXPECT_EQ(fail("mallory"), 0);
    EXPECT_EQ(check("mallory"), 0);
    EXPECT_EQ(lift("alice"), 0);
    EXPECT_EQ(next_pid() - before, 1);
    before = next_pid();
    EXPECT_EQ(fail("mallory"), 0);
    EXPECT_EQ(next_pid() - before, 3);
    EXPECT_EQ(children_of(daemon->pid()), "");
    EXPECT_EQ(notifications.wait(1), texts{blocked("mallory")});
    before = next_pid();
    EXPECT_EQ(fail("mallory"), 0);
    EXPECT_EQ(check("mallory"), 1);
    EXPECT_EQ(next_pid() - before, 1);
    EXPECT_EQ(children_of(daemon->pid()), "");
}

TEST_F(e2e_limiter, missing_notifier_loses_notices_only) {
    fs::remove("/usr/local/sbin/notify");
    for (int n = 0; n < 3; ++n) EXPECT_EQ(fail("mallory"), 0);
    EXPECT_EQ(check("mallory"), 1);
    EXPECT_EQ(lift("mallory"), 0);
    EXPECT_EQ(check("mallory"), 0);
    EXPECT_EQ(children_of(daemon->pid()), "");
    EXPECT_FALSE(fs::exists(notifications_path));
    EXPECT_FALSE(fs::exists(log_path));
}

}  // namespace
