// The notification catalogue, and the sender up to what the notifier sees of it. The linker puts
// this program's functions in the place of the system calls that the sender makes.
#include "nc_msg_db.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ravo_log.h"
#include "ravod_db_handler.h"
#include "support/files.h"
#include "zbservice.h"

namespace {

using texts = std::vector<std::string>;

// The processes that the sender starts borrow this one's memory, so their calls show here.
std::atomic<int> starts = 0;
int failing_start = 0;  // this one, counted from 1, fails
int copies = 0;         // starts that copy this process's memory
int interruptible = 0;  // starts with a signal that is not blocked
int interrupted_waits = 0;

struct wait_call {
    pid_t pid;
    bool wants_status;
    int options;
    bool operator==(const wait_call&) const = default;
};
std::vector<wait_call> waits;
std::mutex waits_lock;
std::atomic<pid_t> last_child = -1;
std::atomic<int> last_child_status = -1;  // where no status was wanted

bool has_close_range = true;
int limit_questions = 0;
int lower_limit_after = 0;  // so many questions; 0: never
constexpr long lower_limit = 20;

}  // namespace

extern "C" {
int __real_clone(int (*steps)(void*), void* stack, int flags, void* arg, ...);
int __wrap_clone(int (*steps)(void*), void* stack, int flags, void* arg, ...);
pid_t __real_waitpid(pid_t pid, int* status, int options);
pid_t __wrap_waitpid(pid_t pid, int* status, int options);
int __real_close_range(unsigned first, unsigned last, int flags);
int __wrap_close_range(unsigned first, unsigned last, int flags);
long __real_sysconf(int name);
long __wrap_sysconf(int name);

int __wrap_clone(int (*steps)(void*), void* stack, int flags, void* arg, ...) {
    if (++starts == failing_start) {
        errno = EAGAIN;
        return -1;
    }
    if ((flags & (CLONE_VM | CLONE_VFORK)) != (CLONE_VM | CLONE_VFORK)) ++copies;
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    for (const int sig : {SIGHUP, SIGINT, SIGTERM, SIGCHLD, SIGRTMIN, SIGRTMAX}) {
        if (sigismember(&blocked, sig) == 0) ++interruptible;
    }
    // The child's own start comes back first, the caller's last.
    return last_child = __real_clone(steps, stack, flags, arg);
}

pid_t __wrap_waitpid(pid_t pid, int* status, int options) {
    {
        const std::lock_guard hold(waits_lock);
        waits.push_back({pid, status != nullptr, options});
    }
    if (interrupted_waits > 0) {
        --interrupted_waits;
        errno = EINTR;
        return -1;
    }
    if (status != nullptr) return __real_waitpid(pid, status, options);
    int own_status = -1;
    const pid_t child = __real_waitpid(pid, &own_status, options);
    last_child_status = own_status;
    return child;
}

int __wrap_close_range(unsigned first, unsigned last, int flags) {
    if (has_close_range) return __real_close_range(first, last, flags);
    errno = ENOSYS;
    return -1;
}

long __wrap_sysconf(int name) {
    if (name == _SC_OPEN_MAX && lower_limit_after != 0 && ++limit_questions > lower_limit_after) {
        return lower_limit;
    }
    return __real_sysconf(name);
}
}

namespace {

constexpr char notifier[] = "/usr/local/sbin/notify";
constexpr char fifo_path[] = "/tmp/notifications";
constexpr int patience_ms = 10000;

const ravo::nc_msg_struct* entry(int index) { return &ravo::__NC_MSG_DB__[index]; }

// What a notifier tells about its start.
struct record {
    pid_t parent = -1;
    std::string blocked;
    std::string ignored;
    texts descriptors;
    texts words;
};

texts split_words(const std::string& bytes) {
    texts words;
    for (size_t start = 0; start < bytes.size();) {
        const size_t end = bytes.find('\0', start);
        words.push_back(bytes.substr(start, end - start));
        start = end + 1;
    }
    return words;
}

record parse(const std::string& bytes) {
    record r;
    const size_t end = bytes.find("\n\n");
    for (const std::string& line : split_lines(bytes.substr(0, end))) {
        const size_t blank = line.find(' ');
        const std::string name = line.substr(0, blank);
        const std::string value = line.substr(blank + 1);
        if (name == "parent") r.parent = std::stoi(value);
        if (name == "blocked") r.blocked = value;
        if (name == "ignored") r.ignored = value;
        if (name == "fd") r.descriptors.push_back(value);
    }
    r.words = split_words(bytes.substr(end + 2));
    return r;
}

// A throw-away notifier, and the records of its starts.
class notifications : public testing::Test {
  protected:
    notifications() {
        close_range(3, ~0U, 0);  // what this program was started with
        std::filesystem::create_directories("/usr/local/sbin");
        std::filesystem::create_symlink(NOTIFY_WITNESS, notifier);
        EXPECT_EQ(mkfifo(fifo_path, 0600), 0);
    }
    ~notifications() override {
        if (fifo >= 0) close(fifo);
    }

    // The record of one start. A notifier waits for the first reader, so what it tells then is what
    // holds after notify_send has returned.
    record next() {
        if (fifo < 0) fifo = open(fifo_path, O_RDWR | O_CLOEXEC);
        std::string length;
        while (!length.ends_with("\n")) {
            const std::string byte = read_some(1);
            if (byte.empty()) return {};
            length += byte;
        }
        std::string bytes;
        while (bytes.size() < std::stoul(length)) {
            const std::string part = read_some(std::stoul(length) - bytes.size());
            if (part.empty()) return {};
            bytes += part;
        }
        return parse(bytes);
    }

    // The words that the notifier is started with.
    template <class... Arguments>
    texts words_of(const ravo::nc_msg_struct* msg, Arguments... arguments) {
        ravo::nclog::notify_send(msg, arguments..., nullptr);
        return next().words;
    }

    // The next notifier waits for a reader again.
    void stop_reading() { close(std::exchange(fifo, -1)); }

    static bool has_children() { return __real_waitpid(-1, nullptr, WNOHANG) >= 0; }

  private:
    std::string read_some(size_t size) {
        pollfd event = {fifo, POLLIN, 0};
        int ready = 0;
        while ((ready = poll(&event, 1, patience_ms)) < 0 && errno == EINTR) {
        }
        if (ready != 1) {
            ADD_FAILURE() << "waited in vain for a notifier";
            return {};
        }
        std::string bytes(size, '\0');
        const ssize_t got = read(fifo, bytes.data(), size);
        bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
        return bytes;
    }

    int fifo = -1;
};

// No notifier, and orphans that come to this process, so that it sees how each of them ends.
class lost_notification : public testing::Test {
  protected:
    lost_notification() { EXPECT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0); }

    static void expect_no_process_left() {
        EXPECT_EQ(__real_waitpid(-1, nullptr, 0), -1);
        EXPECT_EQ(errno, ECHILD);
    }
    // The exit status of an orphan.
    static int orphan_status() {
        int status = 0;
        EXPECT_GT(__real_waitpid(-1, &status, 0), 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
    }
};

const texts silent_streams = {"0 r /dev/null", "1 w /dev/null", "2 w /dev/null"};
constexpr char no_signals[] = "0000000000000000";

// Runs the steps in a child and returns its exit status.
int in_child(const std::function<void()>& steps) {
    const pid_t child = fork();
    if (child == 0) {
        steps();
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    EXPECT_EQ(__real_waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

void limit_descriptors(rlim_t soft) {
    rlimit limit = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = soft;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
}

// A descriptor of this number that an exec does not close.
void open_inherited(int number) {
    const int fd = open("/dev/zero", O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(dup2(fd, number), number);
    if (fd != number) close(fd);
}

texts own_descriptors() {
    texts list;
    for (int fd = 0; fd < 300; ++fd) {
        std::error_code none;
        const auto target =
            std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), none);
        if (!none) list.push_back(std::to_string(fd) + " " + target.string());
    }
    return list;
}

}  // namespace

// --- The catalogue ------------------------------------------------------------------------------

TEST(catalogue, has_these_19_entries_at_these_positions) {
    struct {
        const char* category;
        const char* id;
        const char* level;
        const char* message;
    } const entries[] = {
        {"C001", "0001", "info", "[{0}] Enabled {1} server."},
        {"C001", "0002", "info", "[{0}] Disabled {1} server."},
        {"C001", "0003", "info", "[{0}] Applied the {1} server configuration."},
        {"C001", "0004", "info", R"([{0}] Applied the privilege settings for "{1}".)"},
        {"C001", "0005", "warn", R"([{0}] Removed the privileges of "{1}".)"},
        {"C002", "0006", "info", R"([{0}] Connected the {1} profile: "{2}".)"},
        {"C002", "0007", "info", R"([{0}] Disconnected the {1} profile: "{2}".)"},
        {"C002", "0008", "warn", R"([{0}] Deleted the {1} profile: "{2}".)"},
        {"C002", "0009", "info", R"([{0}] Edited the {1} profile: "{2}".)"},
        {"C002", "0010", "info", R"([{0}] Added the {1} profile: "{2}".)"},
        {"C002", "0011", "info", R"([{0}] Set NAS default gateway to the {1} profile: "{2}".)"},
        {"C002", "0012", "info",
         R"([{0}] Set backup NAS default gateway to the {1} profile: "{2}".)"},
        {"C002", "0013", "info",
         R"([{0}] Set the delay for NAS default gateway reversion to "{1}".)"},
        {"C003", "0014", "info", "[{0}] Disabled {1} server."},
        {"C003", "0015", "info", R"([{0}] Disconnected the {1} profile: "{2}".)"},
        {"C003", "0016", "info", "[{0}] Enabled {1} server."},
        {"C001", "0019", "info",
         "[{0}] Edit login attempt limit settings: Login attempt limit: {1}, Login block time: "
         "{2}, Enable/Disable: {3}."},
        {"C001", "0020", "warn",
         "[{0}] Username: {1} has been blocked because reach the login attempt limit."},
        {"C001", "0021", "info", "[{0}] Unblock the user: Username: {1}."},
    };
    ASSERT_EQ(std::size(entries), 19U);
    ASSERT_EQ(ravo::nc_msg_count, 19);
    ASSERT_EQ(sizeof ravo::__NC_MSG_DB__, 19 * sizeof(ravo::nc_msg_struct));
    for (int n = 0; n < 19; ++n) {
        EXPECT_STREQ(entry(n)->category_id, entries[n].category) << n;
        EXPECT_STREQ(entry(n)->message_id, entries[n].id) << n;
        EXPECT_STREQ(entry(n)->level, entries[n].level) << n;
        EXPECT_STREQ(entry(n)->message, entries[n].message) << n;
    }
}

TEST(catalogue, entry_is_four_pointers_in_this_order) {
    EXPECT_EQ(sizeof(ravo::nc_msg_struct), 4 * sizeof(const char*));
    EXPECT_EQ(offsetof(ravo::nc_msg_struct, category_id), 0U);
    EXPECT_EQ(offsetof(ravo::nc_msg_struct, message_id), 8U);
    EXPECT_EQ(offsetof(ravo::nc_msg_struct, level), 16U);
    EXPECT_EQ(offsetof(ravo::nc_msg_struct, message), 24U);
}

TEST(catalogue, repeated_texts_are_stored_once) {
    const auto text = [](int n) { return static_cast<const void*>(entry(n)->message); };
    EXPECT_EQ(text(13), text(1));
    EXPECT_EQ(text(14), text(6));
    EXPECT_EQ(text(15), text(0));
}

TEST(catalogue, positions_of_the_entries_that_are_sent) {
    EXPECT_STREQ(entry(ravo::nc_default_gateway_set)->message_id, "0011");
    EXPECT_STREQ(entry(ravo::nc_backup_gateway_set)->message_id, "0012");
    EXPECT_STREQ(entry(ravo::nc_reversion_delay_set)->message_id, "0013");
    EXPECT_STREQ(entry(ravo::nc_user_blocked)->message_id, "0020");
    EXPECT_STREQ(entry(ravo::nc_user_unblocked)->message_id, "0021");
}

namespace {
// Looked at before any static object of the program is built.
bool was_there_early = false;
[[gnu::constructor(101)]] void look_early() {
    was_there_early = true;
    for (const ravo::nc_msg_struct& e : ravo::__NC_MSG_DB__) {
        was_there_early = was_there_early && e.category_id != nullptr && e.message != nullptr;
    }
}
}  // namespace

TEST(catalogue, needs_no_initialisation_at_run_time) { EXPECT_TRUE(was_there_early); }

TEST(catalogue, lies_in_memory_that_cannot_be_written) {
    const auto wanted = reinterpret_cast<uintptr_t>(entry(0));
    std::string mode;
    for (const std::string& line : split_lines(read_file("/proc/self/maps"))) {
        char* rest = nullptr;
        const uintptr_t start = strtoul(line.c_str(), &rest, 16);
        const uintptr_t end = strtoul(rest + 1, &rest, 16);
        if (start <= wanted && wanted < end) mode = std::string(rest + 1, 4);
    }
    EXPECT_EQ(mode, "r--p");
}

// --- The notifier's words -----------------------------------------------------------------------

TEST_F(notifications, entry_without_arguments_gives_14_words) {
    EXPECT_EQ(
        words_of(entry(2)),
        (texts{"/usr/local/sbin/notify", "send", "-A", "A238", "-C", "C001", "-M", "0003", "-l",
               "info", "-t", "3", "[{0}] Applied the {1} server configuration.", "RAVO Service"}));
}

TEST_F(notifications, blocked_user_gives_15_words) {
    EXPECT_EQ(words_of(entry(17), "alice"),
              (texts{"/usr/local/sbin/notify", "send", "-A", "A238", "-C", "C001", "-M", "0020",
                     "-l", "warn", "-t", "3",
                     "[{0}] Username: {1} has been blocked because reach the login attempt limit.",
                     "RAVO Service", "alice"}));
}

TEST_F(notifications, each_entry_is_sent_as_it_stands_in_the_catalogue) {
    for (int n = 0; n < ravo::nc_msg_count; ++n) {
        EXPECT_EQ(words_of(entry(n), "one", "two", "three"),
                  (texts{notifier, "send", "-A", "A238", "-C", entry(n)->category_id, "-M",
                         entry(n)->message_id, "-l", entry(n)->level, "-t", "3", entry(n)->message,
                         "RAVO Service", "one", "two", "three"}));
    }
}

TEST_F(notifications, entry_of_the_caller_is_sent_like_one_of_the_catalogue) {
    const ravo::nc_msg_struct own = {"", "id with blanks", "-l", "{0}{1}%s\n"};
    const texts words = words_of(&own, "x");
    ASSERT_EQ(words.size(), 15U);
    EXPECT_EQ((texts{words[5], words[7], words[9], words[12], words[14]}),
              (texts{"", "id with blanks", "-l", "{0}{1}%s\n", "x"}));
}

TEST_F(notifications, twelve_arguments_are_taken_and_no_more) {
    const texts twelve = {"1", "2", "3", "4", "5", "6", "7", "8", "9", "10", "11", "12"};
    texts words =
        words_of(entry(17), "1", "2", "3", "4", "5", "6", "7", "8", "9", "10", "11", "12", "13");
    ASSERT_EQ(words.size(), 26U);
    EXPECT_EQ(texts(words.begin() + 14, words.end()), twelve);
    words = words_of(entry(17), "1", "2", "3", "4", "5", "6", "7", "8", "9", "10", "11", "12");
    ASSERT_EQ(words.size(), 26U);
    EXPECT_EQ(texts(words.begin() + 14, words.end()), twelve);
}

TEST_F(notifications, thirteenth_argument_is_not_even_read) {
    // No text is there, and reading one would end it.
    const auto* nowhere = reinterpret_cast<const char*>(uintptr_t{1});
    ravo::nclog::notify_send(entry(17), "1", "2", "3", "4", "5", "6", "7", "8", "9", "10", "11",
                             "12", nowhere);
    EXPECT_EQ(next().words.size(), 26U);
}

TEST_F(notifications, arguments_end_at_the_first_null) {
    const char* none = nullptr;
    EXPECT_EQ(words_of(entry(17), "a", none, "b").size(), 15U);
}

TEST_F(notifications, hostile_texts_stay_one_word_each) {
    const texts hostile = {"",
                           " ",
                           "a b",
                           "\"quoted\"",
                           "'; reboot; '",
                           "$(reboot)",
                           "`reboot`",
                           "a\nb\r\n",
                           "{0}{1}{99}",
                           "%s%n%d",
                           "-A",
                           "--help",
                           "--",
                           "\\",
                           "*",
                           "\x1b[2J\x7f\x01",
                           "\xff\xfe",
                           "\xe6\x97\xa5",
                           std::string(1024, '"'),
                           std::string(100000, 'x')};
    for (const std::string& text : hostile) {
        const texts words = words_of(entry(6), text.c_str(), "next");
        ASSERT_EQ(words.size(), 16U) << text;
        EXPECT_EQ(words[14], text);
        EXPECT_EQ(words[15], "next");
    }
}

TEST_F(notifications, texts_are_not_needed_after_the_call) {
    char name[] = "alice";
    ravo::nclog::notify_send(entry(18), name, nullptr);
    memset(name, 'x', sizeof name - 1);
    EXPECT_EQ(next().words.back(), "alice");
}

// --- The notifier's process ---------------------------------------------------------------------

TEST_F(notifications, notifier_belongs_to_init_and_the_caller_has_no_child) {
    for (int n = 0; n < 20; ++n) {
        ravo::nclog::notify_send(entry(17), "alice", nullptr);
        EXPECT_FALSE(has_children()) << "neither alive nor as a zombie";
        EXPECT_EQ(errno, ECHILD);
        EXPECT_EQ(next().parent, 1);
        stop_reading();
    }
    EXPECT_EQ(starts, 40) << "two for each notification";
}

TEST_F(notifications, memory_of_the_caller_is_not_copied_and_no_handler_runs_in_it) {
    ravo::nclog::notify_send(entry(17), "alice", nullptr);
    EXPECT_EQ(next().words.size(), 15U);
    EXPECT_EQ(starts, 2);
    EXPECT_EQ(copies, 0);
    EXPECT_EQ(interruptible, 0);
}

TEST_F(notifications, script_that_names_no_interpreter_is_run_by_the_shell) {
    std::filesystem::remove(notifier);
    write_file(notifier, R"(printf '8\n\n\n%s\0' "${14}" > /tmp/notifications)");
    ASSERT_EQ(chmod(notifier, 0755), 0);
    EXPECT_EQ(words_of(entry(17), "alice"), (texts{"alice"}));
}

TEST_F(notifications, caller_waits_for_its_child_only_and_wants_no_status) {
    ravo::nclog::notify_send(entry(17), "alice", nullptr);
    EXPECT_EQ(waits, (std::vector<wait_call>{{last_child, false, 0}}));
    EXPECT_EQ(last_child_status, 0) << "the child's exit status";
    EXPECT_EQ(next().words.size(), 15U);
}

TEST_F(notifications, interrupted_wait_is_repeated) {
    interrupted_waits = 3;
    ravo::nclog::notify_send(entry(17), "alice", nullptr);
    EXPECT_EQ(waits.size(), 4U);
    EXPECT_FALSE(has_children());
    EXPECT_EQ(next().words.size(), 15U);
}

TEST_F(notifications, children_of_the_caller_are_left_alone) {
    int ready[2];
    ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
    const pid_t other = fork();
    if (other == 0) {
        close(ready[1]);
        char byte = 0;
        (void)!read(ready[0], &byte, 1);  // until the parent closes its end
        _exit(7);
    }
    ravo::nclog::notify_send(entry(17), "alice", nullptr);
    EXPECT_EQ(next().words.size(), 15U);
    close(ready[0]);
    close(ready[1]);
    int status = 0;
    EXPECT_EQ(__real_waitpid(other, &status, 0), other);
    EXPECT_EQ(WEXITSTATUS(status), 7);
}

TEST_F(notifications, ignored_sigchld_of_the_caller_does_no_harm) {
    ASSERT_NE(signal(SIGCHLD, SIG_IGN), SIG_ERR);
    ravo::nclog::notify_send(entry(17), "alice", nullptr);
    EXPECT_EQ(waits.size(), 1U) << "the wait ends in ECHILD and is not repeated";
    EXPECT_FALSE(has_children());
    const record got = next();
    EXPECT_EQ(got.words.size(), 15U);
    EXPECT_EQ(got.ignored, no_signals);
    EXPECT_EQ(got.parent, 1);
}

TEST_F(notifications, notifier_starts_with_default_signals_and_an_empty_mask) {
    for (int sig = 1; sig < NSIG; ++sig) {
        if (sig == SIGCHLD || sig == SIGKILL || sig == SIGSTOP) continue;
        (void)signal(
            sig, sig % 2 == 0 ? SIG_IGN : [](int) {});
    }
    sigset_t every;
    sigfillset(&every);
    ASSERT_EQ(sigprocmask(SIG_SETMASK, &every, nullptr), 0);
    ravo::nclog::notify_send(entry(17), "alice", nullptr);
    const record got = next();
    EXPECT_EQ(got.blocked, no_signals);
    EXPECT_EQ(got.ignored, no_signals);
    sigset_t now;
    ASSERT_EQ(sigprocmask(SIG_SETMASK, nullptr, &now), 0);
    EXPECT_EQ(sigismember(&now, SIGTERM), 1) << "the caller's mask stays";
    EXPECT_EQ(signal(SIGUSR2, SIG_DFL), SIG_IGN) << "and so do its actions";
}

TEST_F(notifications, any_thread_may_send) {
    std::vector<std::thread> threads;
    threads.reserve(8);
    for (int n = 0; n < 8; ++n) {
        threads.emplace_back([n] {
            const std::string name = "user " + std::to_string(n);
            for (int m = 0; m < 4; ++m) ravo::nclog::notify_send(entry(17), name.c_str(), nullptr);
        });
    }
    std::vector<int> counts(8);
    for (int n = 0; n < 32; ++n) {
        const texts words = next().words;
        ASSERT_EQ(words.size(), 15U);
        ++counts[static_cast<size_t>(words[14].back() - '0')];
    }
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(counts, std::vector<int>(8, 4));
    EXPECT_FALSE(has_children());
}

// --- Descriptors --------------------------------------------------------------------------------

TEST_F(notifications, notifier_sees_its_three_silent_streams_and_nothing_else) {
    for (const bool with_range : {true, false}) {
        has_close_range = with_range;
        limit_descriptors(256);
        for (const int number : {3, 4, 10, 100, 254, 255}) open_inherited(number);
        const texts before = own_descriptors();
        ravo::nclog::notify_send(entry(17), "alice", nullptr);
        EXPECT_EQ(own_descriptors(), before) << "the caller's stay open";
        EXPECT_EQ(next().descriptors, silent_streams) << with_range;
    }
}

TEST_F(notifications, notifier_sees_no_database_no_socket_and_no_log) {
    ASSERT_EQ(create_conn_server_log_db(), 0);
    zb_service* endpoint = zb_create("@/tmp/endpoint", 4, 1, [](const char*, zb_io*, int) {});
    ASSERT_NE(endpoint, nullptr);
    ASSERT_EQ(zb_signal(SIGUSR1, [](int) {}), 0);
    FILE* log = fopen(log_path, "a");
    ASSERT_NE(log, nullptr);
    for (int fd = 3; fd < 50; ++fd) {  // whatever these do, none of them may be close-on-exec here
        const int flags = fcntl(fd, F_GETFD);
        if (flags < 0) continue;
        ASSERT_EQ(fcntl(fd, F_SETFD, flags & ~FD_CLOEXEC), 0);
    }
    ravo::nclog::notify_send(entry(17), "alice", nullptr);
    EXPECT_EQ(next().descriptors, silent_streams);
    db_conn_server_log row = {};
    EXPECT_EQ(insert_conn_server_log(&row), 0);
    EXPECT_EQ(read_file(log_path), "") << "the caller's connection works on";
    EXPECT_EQ(fclose(log), 0);
    finish_conn_server_log_db();
    zb_free(endpoint);
}

TEST_F(notifications, descriptors_at_the_limit_and_above_are_left_open_either_way) {
    for (const bool with_range : {true, false}) {
        has_close_range = with_range;
        limit_descriptors(256);
        open_inherited(63);
        open_inherited(64);
        limit_descriptors(64);
        ravo::nclog::notify_send(entry(17), "alice", nullptr);
        texts wanted = silent_streams;
        wanted.emplace_back("64 r /dev/zero");
        EXPECT_EQ(next().descriptors, wanted) << with_range;
    }
}

TEST_F(notifications, loop_asks_for_the_limit_on_every_round) {
    has_close_range = false;
    limit_descriptors(256);
    for (const int number : {5, 19, 20, 30}) open_inherited(number);
    lower_limit_after = 8;
    ravo::nclog::notify_send(entry(17), "alice", nullptr);
    texts wanted = silent_streams;
    wanted.emplace_back("20 r /dev/zero");
    wanted.emplace_back("30 r /dev/zero");
    EXPECT_EQ(next().descriptors, wanted);
}

TEST_F(notifications, standard_streams_that_are_closed_in_the_caller_are_open_in_the_notifier) {
    EXPECT_EQ(in_child([] {
                  for (int fd = 0; fd < 3; ++fd) close(fd);
                  ravo::nclog::notify_send(entry(17), "alice", nullptr);
              }),
              0);
    EXPECT_EQ(next().descriptors, silent_streams);
}

TEST_F(notifications, output_that_the_caller_has_not_written_yet_is_written_once) {
    EXPECT_EQ(in_child([] {
                  static char room[1000];
                  const int out = open("/tmp/out", O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
                  const int err = open("/tmp/err", O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
                  dup2(out, 1);
                  dup2(err, 2);
                  (void)setvbuf(stderr, room, _IOFBF, sizeof room);
                  FILE* file = fopen("/tmp/file", "we");
                  (void)fputs("output", stdout);
                  (void)fputs("error", stderr);
                  (void)fputs("file", file);
                  ravo::nclog::notify_send(entry(17), "alice", nullptr);
                  (void)fclose(file);
                  (void)fflush(stdout);
                  (void)fflush(stderr);
              }),
              0);
    EXPECT_EQ(next().words.size(), 15U);
    // The notifier has written to its own streams by now, too.
    EXPECT_EQ(read_file("/tmp/out"), "output");
    EXPECT_EQ(read_file("/tmp/err"), "error");
    EXPECT_EQ(read_file("/tmp/file"), "file");
}

TEST_F(notifications, input_of_the_caller_keeps_its_place) {
    write_file("/tmp/in", "first line\nsecond line\n");
    EXPECT_EQ(in_child([] {
                  const int in = open("/tmp/in", O_RDONLY | O_CLOEXEC);
                  dup2(in, 0);
                  char line[100];
                  EXPECT_NE(fgets(line, sizeof line, stdin), nullptr);
                  const off_t place = lseek(0, 0, SEEK_CUR);
                  ravo::nclog::notify_send(entry(17), "alice", nullptr);
                  EXPECT_EQ(lseek(0, 0, SEEK_CUR), place);
                  EXPECT_NE(fgets(line, sizeof line, stdin), nullptr);
                  EXPECT_STREQ(line, "second line\n");
              }),
              0);
    EXPECT_EQ(next().words.size(), 15U);
}

// --- What is lost without trace -----------------------------------------------------------------

TEST_F(lost_notification, missing_notifier_leaves_nothing_behind) {
    ravo::nclog::notify_send(entry(17), "alice", nullptr);
    EXPECT_EQ(last_child_status, 0);
    EXPECT_EQ(orphan_status(), 1);
    expect_no_process_left();
    EXPECT_EQ(read_file(log_path), "");
}

TEST_F(lost_notification, notifier_that_is_not_executable_leaves_nothing_behind) {
    std::filesystem::create_directories("/usr/local/sbin");
    write_file(notifier, "text");
    ravo::nclog::notify_send(entry(17), "alice", nullptr);
    EXPECT_EQ(orphan_status(), 1);
    expect_no_process_left();
}

TEST_F(lost_notification, notifier_is_not_looked_for_elsewhere) {
    std::filesystem::create_directories("/usr/local/bin");
    std::filesystem::create_symlink("/bin/true", "/usr/local/bin/notify");
    ravo::nclog::notify_send(entry(17), "alice", nullptr);
    EXPECT_EQ(orphan_status(), 1);
}

TEST_F(lost_notification, text_too_long_for_the_system_leaves_nothing_behind) {
    std::filesystem::create_directories("/usr/local/sbin");
    std::filesystem::create_symlink("/bin/true", notifier);
    const std::string text(200000, 'x');
    ravo::nclog::notify_send(entry(17), text.c_str(), nullptr);
    EXPECT_EQ(orphan_status(), 1);
    expect_no_process_left();
    ravo::nclog::notify_send(entry(17), "alice", nullptr);
    EXPECT_EQ(orphan_status(), 0) << "and the next one is delivered";
}

TEST_F(lost_notification, child_that_cannot_be_started_returns_at_once) {
    failing_start = 1;
    ravo::nclog::notify_send(entry(17), "alice", nullptr);
    EXPECT_EQ(waits.size(), 0U) << "there is no child to wait for";
    sigset_t now;
    ASSERT_EQ(sigprocmask(SIG_SETMASK, nullptr, &now), 0);
    EXPECT_EQ(sigisemptyset(&now), 1) << "the caller's mask is back";
    expect_no_process_left();
    EXPECT_EQ(read_file(log_path), "");
}

TEST_F(lost_notification, notifier_that_cannot_be_started_ends_the_child_with_1) {
    failing_start = 2;
    ravo::nclog::notify_send(entry(17), "alice", nullptr);
    EXPECT_EQ(last_child_status, 1 << 8) << "exit status 1";
    expect_no_process_left();
    EXPECT_EQ(read_file(log_path), "");
}

TEST_F(lost_notification, many_of_them_leave_no_zombie) {
    for (int n = 0; n < 50; ++n) ravo::nclog::notify_send(entry(17), "alice", nullptr);
    for (int n = 0; n < 50; ++n) EXPECT_EQ(orphan_status(), 1);
    expect_no_process_left();
}
