// The log facility, as its units use it, in its real places.
#include "ravo_log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "log_units/file_calls.h"
#include "log_units/units.h"
#include "support/files.h"

namespace {
bool has_memory = true;
}  // namespace

extern "C" {
void* __real_malloc(size_t size);
void* __wrap_malloc(size_t size);

void* __wrap_malloc(size_t size) { return has_memory ? __real_malloc(size) : nullptr; }
}

namespace {

namespace fs = std::filesystem;
using std::to_string;
using texts = std::vector<std::string>;

const std::string lock_file = "/var/lock/ravo_log.lck";
const std::string open_lock = "open " + lock_file + " O_WRONLY|O_CREAT|O_CLOEXEC|O_NONBLOCK 0777";
const std::string open_log =
    std::string("open ") + log_path + " O_WRONLY|O_CREAT|O_APPEND|O_CLOEXEC 0666";

log_state& state_a() { return *place_in_unit_a().log; }

// What unit a puts in front of every message.
std::string prefix(const char* level = "ERROR") {
    return to_string(getpid()) + " [" + level + "] unit_a.cpp [" +
           to_string(place_in_unit_a().line) + "] place_in_unit_a:";
}

void log_text(const char* text) { log_line(place_in_unit_a(), "ERROR", "%s", text); }

size_t open_descriptors() {
    return static_cast<size_t>(std::distance(fs::directory_iterator("/proc/self/fd"), {}));
}

// The write calls that this process has made.
long write_calls() {
    const std::string counters = read_file("/proc/self/io");
    const size_t at = counters.find("syscw: ");
    EXPECT_NE(at, std::string::npos) << counters;
    return at == std::string::npos ? -1 : std::stol(counters.substr(at + 7));
}

mode_t mode_bits(const std::string& path) {
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

// --- The line -----------------------------------------------------------------------------------

TEST(log, line_names_process_level_unit_line_function_and_message) {
    log_line(place_in_unit_a(), "ERROR", "count %d of %s\n", 7, "rows");
    EXPECT_EQ(read_file(log_path), prefix() + "count 7 of rows\n");
}

TEST(log, warn_is_the_other_level) {
    log_line(place_in_unit_a(), "WARN", "close db\n");
    EXPECT_EQ(read_file(log_path), prefix("WARN") + "close db\n");
}

TEST(log, unit_name_has_its_extension_and_no_path) {
    EXPECT_STREQ(place_in_unit_b().file, "unit_b.cpp");
    EXPECT_STREQ(place_in_unit_b().function, "place_in_unit_b");
    const texts source = split_lines(read_file(TEST_SOURCES "/log_units/unit_b.cpp"));
    const auto line = static_cast<size_t>(place_in_unit_b().line);
    ASSERT_LE(line, source.size());
    EXPECT_EQ(source[line - 1], "call_site place_in_unit_b() { return HERE; }");
}

TEST(log, level_is_cut_to_its_buffer_of_16_bytes) {
    log_line(place_in_unit_a(), "0123456789abcdefgh", "x\n");
    EXPECT_EQ(read_file(log_path), prefix("0123456789abcde") + "x\n");
}

TEST(log, message_without_newline_runs_into_the_next_line) {
    log_text("first");
    log_text("second\n");
    EXPECT_EQ(read_file(log_path), prefix() + "first" + prefix() + "second\n");
}

TEST(log, line_of_20_kilobytes_goes_out_in_one_write) {
    const std::string message(20000, 'm');
    log_text("first use\n");
    const std::string before = read_file(log_path);
    const long writes = write_calls();
    log_text((message + "\n").c_str());
    EXPECT_EQ(write_calls() - writes, 1);
    EXPECT_EQ(read_file(log_path), before + prefix() + message + "\n");
}

TEST(log, line_longer_than_the_buffer_arrives_whole) {
    const std::string message(100000, 'm');
    log_text(message.c_str());
    EXPECT_EQ(read_file(log_path), prefix() + message);
}

TEST(log, line_needs_no_memory_and_is_cut_at_its_buffer_without) {
    has_memory = false;
    log_text("short\n");
    const std::string message(100000, 'm');
    log_text(message.c_str());
    has_memory = true;
    const std::string expected = prefix() + "short\n" + prefix();
    const std::string written = read_file(log_path);
    EXPECT_EQ(written.substr(0, expected.size()), expected);
    EXPECT_EQ(written.size(), prefix().size() + strlen("short\n") + 32767);
    EXPECT_EQ(written.find_first_not_of('m', expected.size()), std::string::npos);
}

TEST(log, null_text_is_written_as_null) {
    EXPECT_STREQ(text_or_null(nullptr), "(null)");
    EXPECT_STREQ(text_or_null("text"), "text");
}

// --- The state of a unit ------------------------------------------------------------------------

TEST(log, unit_begins_with_the_shared_file_and_no_lock_file) {
    const log_state& state = state_a();
    EXPECT_EQ(state.__cur_type__, 1);
    EXPECT_STREQ(state.__log_file__, "/var/log/network/RAVO.log");
    EXPECT_EQ(sizeof state.__log_file__, 256U);
    EXPECT_EQ(state._iot_lock_fd, -1);
}

TEST(log, each_unit_has_a_state_of_its_own) {
    strcpy(state_a().__log_file__, "/tmp/other.log");
    log_text("from a\n");
    log_line(place_in_unit_b(), "ERROR", "from b\n");
    EXPECT_EQ(read_file("/tmp/other.log"), prefix() + "from a\n");
    EXPECT_EQ(count_of(read_file(log_path), "from"), 1U);
    EXPECT_EQ(count_of(read_file(log_path), "place_in_unit_b:from b\n"), 1U);
}

TEST(log, type_0_writes_to_standard_output_and_touches_no_file) {
    state_a().__cur_type__ = 0;
    const file_calls::recording seen;
    testing::internal::CaptureStdout();
    log_text("to the terminal\n");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), prefix() + "to the terminal\n");
    EXPECT_EQ(count_of(testing::PrintToString(seen.calls), "ravo_log.lck"), 0U);
    EXPECT_FALSE(fs::exists(log_path));
    EXPECT_FALSE(fs::exists(lock_file));
}

TEST(log, type_0_writes_also_without_a_log_file) {
    state_a().__cur_type__ = 0;
    state_a().__log_file__[0] = '\0';
    testing::internal::CaptureStdout();
    log_text("x");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), prefix() + "x");
}

TEST(log, any_other_type_writes_nothing) {
    for (const int type : {2, 3, -1, 1 << 30}) {
        state_a().__cur_type__ = type;
        const file_calls::recording seen;
        log_text("x\n");
        EXPECT_EQ(seen.calls, texts{}) << type;
    }
}

TEST(log, empty_path_writes_nothing) {
    state_a().__log_file__[0] = '\0';
    const file_calls::recording seen;
    log_text("x\n");
    EXPECT_EQ(seen.calls, texts{});
}

// --- The log file -------------------------------------------------------------------------------

TEST(log, missing_directory_drops_the_line) {
    fs::remove_all("/var/log/network");
    const size_t before = open_descriptors();
    const file_calls::recording seen;
    log_text("lost\n");
    EXPECT_EQ(seen.calls, (texts{open_lock, open_log, "F_SETLK F_UNLCK 0 0 0", "close"}));
    EXPECT_FALSE(fs::exists("/var/log/network"));
    EXPECT_EQ(open_descriptors(), before);
}

TEST(log, file_is_opened_for_each_line_so_it_may_be_moved_away) {
    log_text("one\n");
    fs::rename(log_path, "/var/log/network/RAVO.log.1");
    log_text("two\n");
    EXPECT_EQ(read_file("/var/log/network/RAVO.log.1"), prefix() + "one\n");
    EXPECT_EQ(read_file(log_path), prefix() + "two\n");
}

TEST(log, file_is_opened_for_each_line_so_it_may_be_removed) {
    log_text("one\n");
    fs::remove(log_path);
    log_text("two\n");
    EXPECT_EQ(read_file(log_path), prefix() + "two\n");
}

TEST(log, line_lands_behind_what_another_writer_appended_meanwhile) {
    write_file(log_path, "old\n");
    file_calls::after_log_open = [] { write_file(log_path, "a longer text than before\n"); };
    log_text("new\n");
    EXPECT_EQ(read_file(log_path), "a longer text than before\n" + prefix() + "new\n");
}

// --- The lock file ------------------------------------------------------------------------------

TEST(log, lock_file_is_opened_but_not_locked) {
    const file_calls::recording seen;
    log_text("x\n");
    log_text("y\n");
    const texts one_line = {open_lock, open_log, "close log", "F_SETLK F_UNLCK 0 0 0", "close"};
    texts two_lines = one_line;
    two_lines.insert(two_lines.end(), one_line.begin(), one_line.end());
    EXPECT_EQ(seen.calls, two_lines);
    EXPECT_EQ(state_a()._iot_lock_fd, -1);
}

TEST(log, lock_file_has_all_permission_bits_but_the_masks) {
    umask(0);
    log_text("x\n");
    EXPECT_EQ(mode_bits(lock_file), 0777U);
    fs::remove(lock_file);
    umask(027);
    log_text("x\n");
    EXPECT_EQ(mode_bits(lock_file), 0750U);
}

// Makes the first open fail, so that the lock file is open after the line.
void leave_lock_file_open() {
    int opens = 0;
    file_calls::open_fails = [&opens] { return opens++ == 0; };
    log_text("unlocked\n");
    file_calls::open_fails = nullptr;
}

TEST(log, failed_open_leaves_the_lock_file_open_after_the_line) {
    const file_calls::recording seen;
    leave_lock_file_open();
    EXPECT_EQ(seen.calls, (texts{open_lock, open_log, "close log", open_lock}));
    EXPECT_NE(state_a()._iot_lock_fd, -1);
    EXPECT_EQ(read_file(log_path), prefix() + "unlocked\n");
}

TEST(log, descriptor_left_open_is_waited_for_then_closed) {
    leave_lock_file_open();
    const file_calls::recording seen;
    log_text("locked\n");
    EXPECT_EQ(seen.calls, (texts{"F_SETLKW F_WRLCK 0 0 0", open_log, "close log",
                                 "F_SETLK F_UNLCK 0 0 0", "close"}));
    EXPECT_EQ(state_a()._iot_lock_fd, -1);
    log_text("as usual\n");
    EXPECT_EQ(seen.calls[5], open_lock);
}

// A second line in the middle of the first stands for another thread's.
TEST(log, lines_that_fail_to_open_at_once_leave_one_lock_file_open) {
    int opens = 0;
    const size_t before = open_descriptors();
    file_calls::open_fails = [&opens] { return opens++ < 2; };
    file_calls::after_log_open = [] { log_text("inner\n"); };
    log_text("outer\n");
    file_calls::open_fails = nullptr;
    EXPECT_EQ(opens, 4);
    EXPECT_EQ(open_descriptors(), before + 1);
    log_text("locked\n");
    EXPECT_EQ(open_descriptors(), before);
}

TEST(log, line_waits_until_another_process_gives_its_lock_back) {
    leave_lock_file_open();
    int ready[2];
    int go[2];
    ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
    ASSERT_EQ(pipe2(go, O_CLOEXEC), 0);
    const pid_t holder = fork();
    if (holder == 0) {
        char byte = 0;
        ravo_log::set_lock(ravo_log::open_lock_file(), F_SETLK, F_WRLCK);
        _exit(write(ready[1], "r", 1) == 1 && read(go[0], &byte, 1) == 1 ? 0 : 1);
    }
    char byte = 0;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    bool was_held = false;
    file_calls::before_wait = [&](int fd) {
        struct flock whole_file = {};
        whole_file.l_type = F_WRLCK;
        was_held = fcntl(fd, F_GETLK, &whole_file) == 0 && whole_file.l_pid == holder;
        EXPECT_EQ(write(go[1], "g", 1), 1);
    };
    log_text("after all\n");
    file_calls::before_wait = nullptr;
    EXPECT_TRUE(was_held);
    EXPECT_EQ(count_of(read_file(log_path), "after all\n"), 1U);
    EXPECT_EQ(waitpid(holder, nullptr, 0), holder);
}

TEST(log, lock_file_that_cannot_be_opened_does_not_stop_the_line) {
    fs::remove_all("/var/lock");
    const file_calls::recording seen;
    log_text("x\n");
    EXPECT_EQ(seen.calls, (texts{open_lock, open_log, "close log", open_lock}));
    EXPECT_EQ(state_a()._iot_lock_fd, -1);
    EXPECT_EQ(read_file(log_path), prefix() + "x\n");
}

TEST(log, lock_file_that_somebody_made_a_fifo_does_not_stop_the_line) {
    ASSERT_EQ(mkfifo(lock_file.c_str(), 0666), 0);
    log_text("x\n");
    EXPECT_EQ(state_a()._iot_lock_fd, -1);
    EXPECT_EQ(read_file(log_path), prefix() + "x\n");
}

TEST(log, descriptors_are_close_on_exec_while_a_line_is_written) {
    size_t others = 0;
    file_calls::after_log_open = [&] {
        for (int fd = 3; fd < 64; ++fd) {
            char target[64] = {};
            const std::string link = "/proc/self/fd/" + to_string(fd);
            if (readlink(link.c_str(), target, sizeof target - 1) < 0) continue;
            if (target != fs::canonical(lock_file) && target != std::string(log_path)) continue;
            ++others;
            EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC) << target;
        }
    };
    log_text("x\n");
    EXPECT_EQ(others, 2U);
}

// --- Many writers -------------------------------------------------------------------------------

constexpr int writers = 4;
constexpr int lines_each = 60;

// Lines of all lengths up to some 12 KB, each of one letter, so that a torn one shows.
void write_lines(char letter) {
    for (int n = 0; n < lines_each; ++n) {
        const std::string message(static_cast<size_t>(n * 200 + 1), letter);
        log_line(place_in_unit_a(), "ERROR", "%s\n", message.c_str());
    }
}

void in_threads(const std::function<void(char)>& work) {
    std::vector<std::thread> threads;
    threads.reserve(writers);
    for (int n = 0; n < writers; ++n) threads.emplace_back(work, static_cast<char>('a' + n));
    for (std::thread& thread : threads) thread.join();
}

// Whether the line is a prefix and then one letter again and again.
bool is_whole(const std::string& line) {
    const size_t at = line.find("place_in_unit_a:");
    if (at == std::string::npos || line.find("place_in_unit_a:", at + 1) != std::string::npos) {
        return false;
    }
    const std::string message = line.substr(at + strlen("place_in_unit_a:"));
    return !message.empty() && message.size() % 200 == 1 &&
           message.find_first_not_of(message[0]) == std::string::npos;
}

TEST(log, lines_of_many_threads_and_processes_stay_whole) {
    constexpr int processes = 3;
    std::vector<pid_t> children;
    for (int n = 0; n < processes; ++n) {
        children.push_back(fork());
        if (children.back() == 0) {
            in_threads(write_lines);
            _exit(0);
        }
    }
    for (const pid_t child : children) EXPECT_EQ(waitpid(child, nullptr, 0), child);
    const texts lines = split_lines(read_file(log_path));
    EXPECT_EQ(lines.size(), static_cast<size_t>(processes * writers * lines_each));
    EXPECT_EQ(std::ranges::count_if(lines, is_whole), std::ssize(lines));
}

TEST(log, threads_leak_no_descriptor_and_close_none_twice) {
    std::atomic<int> opens = 0;
    file_calls::open_fails = [&opens] { return ++opens % 3 == 0; };
    const size_t before = open_descriptors();
    in_threads([](char) {
        for (int n = 0; n < 500; ++n) log_text("x\n");
    });
    file_calls::open_fails = nullptr;
    const size_t left_behind = state_a()._iot_lock_fd == -1 ? 0 : 1;
    EXPECT_EQ(open_descriptors(), before + left_behind);
    EXPECT_EQ(file_calls::bad_closes, 0);
    EXPECT_EQ(split_lines(read_file(log_path)).size(), static_cast<size_t>(writers * 500));
}

}  // namespace
