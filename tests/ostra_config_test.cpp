// File locks, driven with steps in a fixed order and a clock of our own.
//
// The library pauses with nanosleep and reads CLOCK_MONOTONIC. Both are replaced in this program,
// so a pause is an event that the test sees: "it tried, and the lock was taken". In the test itself
// a pause only moves the clock on. In a locker (another process or another thread) it lasts until
// the test tells it to go on.
#include "ostra_config.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

extern "C" int c11_write_lock_and_unlock(const char* path);

namespace {
using std::chrono::milliseconds;
using std::chrono::nanoseconds;

// One clock and one way to pause for each thread of this program.
thread_local nanoseconds clock_lead{0};
thread_local std::vector<nanoseconds> pauses;
thread_local std::function<void()> during_pause;

void pause_for(const timespec& time) {
    const nanoseconds length = std::chrono::seconds(time.tv_sec) + nanoseconds(time.tv_nsec);
    pauses.push_back(length);
    clock_lead += length;
    if (during_pause) during_pause();
}
}  // namespace

extern "C" {
__attribute__((visibility("default"))) int nanosleep(const timespec* time, timespec* /*left*/) {
    pause_for(*time);
    return 0;
}

__attribute__((visibility("default"))) int clock_gettime(clockid_t clock, timespec* now) noexcept {
    const auto result = static_cast<int>(syscall(SYS_clock_gettime, clock, now));
    if (result != 0 || clock != CLOCK_MONOTONIC) return result;
    const nanoseconds time = nanoseconds(now->tv_nsec) + clock_lead;
    now->tv_sec += std::chrono::floor<std::chrono::seconds>(time).count();
    now->tv_nsec = (time % std::chrono::seconds(1)).count();
    return 0;
}
}

namespace {
constexpr milliseconds longest_wait{5000};
constexpr int paused = INT_MIN;  // said by a locker instead of a result

enum command : int { quit, read_lock, write_lock, unlock, fork_child, go_on };

class message_pipe {
  public:
    message_pipe() {
        if (pipe2(ends_.data(), O_CLOEXEC) != 0) std::abort();
    }
    message_pipe(const message_pipe&) = delete;
    message_pipe& operator=(const message_pipe&) = delete;
    ~message_pipe() {
        close_end(0);
        close_end(1);
    }
    void close_end(size_t end) {
        if (ends_[end] >= 0) close(ends_[end]);
        ends_[end] = -1;
    }
    void send(int message) const {
        if (write(ends_[1], &message, sizeof message) != sizeof message) std::abort();
    }
    // What was sent, or `quit` when nobody is left who could send.
    int receive() const {
        int message = quit;
        return read(ends_[0], &message, sizeof message) == sizeof message ? message : quit;
    }
    int end(size_t which) const { return ends_[which]; }

  private:
    std::array<int, 2> ends_{};
};

int take(int how, const std::string& path) {
    return how == read_lock ? Ini_Conf_Read_Lock_File(path.c_str())
                            : Ini_Conf_Write_Lock_File(path.c_str());
}

enum class kind { process, thread };

// Somebody else who takes locks: one command, one answer at a time.
class locker {
  public:
    locker(kind what, std::string path) : path_(std::move(path)) {
        if (what == kind::thread) {
            thread_ = std::thread([this] { serve(); });
            return;
        }
        process_ = fork();
        if (process_ != 0) {
            commands_.close_end(0);
            answers_.close_end(1);
            return;
        }
        commands_.close_end(1);
        answers_.close_end(0);
        serve();
        _exit(0);
    }
    locker(const locker&) = delete;
    locker& operator=(const locker&) = delete;
    ~locker() {
        if (thread_.joinable()) {
            commands_.send(quit);
            thread_.join();
        } else if (process_ > 0) {
            commands_.close_end(1);
            wait_for_end();
        }
    }

    int ask(int what) {
        tell(what);
        return answer();
    }
    void tell(int what) const { commands_.send(what); }
    int answer() const { return answers_.receive(); }
    void kill_process() {
        kill(process_, SIGKILL);
        wait_for_end();
    }

  private:
    void wait_for_end() {
        waitpid(process_, nullptr, 0);
        process_ = -1;
    }

    void serve() {
        // A pause that the test never ends is the end of the wait.
        during_pause = [this] {
            answers_.send(paused);
            if (commands_.receive() != go_on) clock_lead += longest_wait;
        };
        for (int what = commands_.receive(); what != quit; what = commands_.receive()) {
            if (what == unlock) {
                answers_.send(Ini_Conf_Unlock_File(handle_));
            } else if (what == fork_child) {
                fork_child_that_stays();
            } else {
                answers_.send(handle_ = take(what, path_));
            }
        }
        (void)Ini_Conf_Unlock_File(handle_);  // a thread would leave it to the next test
    }

    // The child says that it stands, and stays until this locker's commands end.
    void fork_child_that_stays() const {
        if (fork() != 0) return;
        answers_.send(0);
        commands_.receive();
        _exit(0);
    }

    std::string path_;
    message_pipe commands_;
    message_pipe answers_;
    std::thread thread_;
    pid_t process_ = -1;
    int handle_ = -1;
};

std::string contents_of(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

void write_file(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

bool exists(const std::string& path) {
    struct stat file {};
    return lstat(path.c_str(), &file) == 0;
}

size_t open_descriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

int open_lock_files() {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;  // the descriptor that reads this very directory
        if (read_symlink(entry.path(), gone).extension() == ".lck") ++count;
    }
    return count;
}

// Runs the body in a child, so that it may spoil its process. Returns what the body returns.
int in_child(const std::function<int()>& body) {
    const pid_t child = fork();
    if (child == 0) _exit(body());
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class ostra_config : public testing::Test {
  public:
    static int read(const std::string& path) { return Ini_Conf_Read_Lock_File(path.c_str()); }
    static int write(const std::string& path) { return Ini_Conf_Write_Lock_File(path.c_str()); }
    static int release(int handle) { return Ini_Conf_Unlock_File(handle); }

    // True when an exclusive lock is had at once, that is, when nobody holds the lock.
    static bool is_free(const std::string& path) {
        pauses.clear();
        const int handle = write(path);
        return handle >= 0 && release(handle) == 0 && pauses.empty();
    }

  protected:
    void SetUp() override {
        std::string name = "/tmp/ostra_config.XXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        directory = name;
        path = directory + "/options.conf";
        umask(022);
    }
    void TearDown() override {
        chmod(directory.c_str(), 0755);
        std::filesystem::remove_all(directory);
    }

    std::string directory;
    std::string path;
};

// --- Who excludes whom, between processes and between threads -----------------------------------

class ostra_config_between : public ostra_config, public testing::WithParamInterface<kind> {};

INSTANTIATE_TEST_SUITE_P(both, ostra_config_between, testing::Values(kind::process, kind::thread),
                         [](const testing::TestParamInfo<kind>& kind_of_locker) {
                             return kind_of_locker.param == kind::process ? "processes" : "threads";
                         });

TEST_P(ostra_config_between, shared_locks_stand_together) {
    locker other(GetParam(), path);
    const int mine = read(path);
    ASSERT_GE(mine, 0);
    EXPECT_GE(other.ask(read_lock), 0);
    EXPECT_EQ(other.ask(unlock), 0);
    EXPECT_EQ(release(mine), 0);
}

TEST_P(ostra_config_between, exclusive_waits_for_shared) {
    locker other(GetParam(), path);
    const int mine = read(path);
    ASSERT_EQ(other.ask(write_lock), paused);
    ASSERT_EQ(release(mine), 0);
    EXPECT_GE(other.ask(go_on), 0);
}

TEST_P(ostra_config_between, shared_waits_for_exclusive) {
    locker other(GetParam(), path);
    const int mine = write(path);
    ASSERT_EQ(other.ask(read_lock), paused);
    ASSERT_EQ(release(mine), 0);
    EXPECT_GE(other.ask(go_on), 0);
}

TEST_P(ostra_config_between, exclusive_waits_for_exclusive_until_it_ends) {
    locker other(GetParam(), path);
    const int mine = write(path);
    ASSERT_EQ(other.ask(write_lock), paused);
    ASSERT_EQ(other.ask(go_on), paused) << "still held, so it has to pause again";
    ASSERT_EQ(release(mine), 0);
    EXPECT_GE(other.ask(go_on), 0);
    EXPECT_EQ(other.ask(unlock), 0);
    EXPECT_TRUE(is_free(path));
}

TEST_P(ostra_config_between, exclusive_waits_for_the_last_of_several_shared) {
    locker other(GetParam(), path);
    const int first = read(path);
    const int second = read(path);
    ASSERT_EQ(other.ask(write_lock), paused);
    ASSERT_EQ(release(first), 0);
    ASSERT_EQ(other.ask(go_on), paused);
    ASSERT_EQ(release(second), 0);
    EXPECT_GE(other.ask(go_on), 0);
}

TEST_P(ostra_config_between, different_paths_do_not_meet) {
    locker other(GetParam(), directory + "/another.conf");
    const int mine = write(path);
    ASSERT_GE(mine, 0);
    EXPECT_GE(other.ask(write_lock), 0);
    EXPECT_EQ(release(mine), 0);
}

TEST_P(ostra_config_between, held_lock_times_out) {
    locker other(GetParam(), path);
    ASSERT_GE(other.ask(write_lock), 0);
    EXPECT_EQ(read(path), ostra_lock_timed_out);
    EXPECT_EQ(write(path), ostra_lock_timed_out);
}

TEST_F(ostra_config, killed_holder_frees_the_lock) {
    locker other(kind::process, path);
    ASSERT_GE(other.ask(write_lock), 0);
    other.kill_process();
    EXPECT_TRUE(is_free(path));
}

TEST_F(ostra_config, killed_holder_frees_the_lock_though_its_child_lives) {
    locker other(kind::process, path);
    ASSERT_GE(other.ask(write_lock), 0);
    ASSERT_EQ(other.ask(fork_child), 0);
    other.kill_process();
    EXPECT_TRUE(is_free(path));
}

TEST_F(ostra_config, killed_waiter_leaves_nothing_behind) {
    locker other(kind::process, path);
    const int mine = read(path);
    ASSERT_EQ(other.ask(write_lock), paused);
    other.kill_process();
    EXPECT_EQ(release(read(path)), 0);
    EXPECT_EQ(release(mine), 0);
    EXPECT_TRUE(is_free(path));
}

TEST_F(ostra_config, second_exclusive_lock_in_one_thread_times_out) {
    const int mine = write(path);
    EXPECT_EQ(write(path), ostra_lock_timed_out);
    EXPECT_EQ(read(path), ostra_lock_timed_out);
    EXPECT_EQ(release(mine), 0);
    EXPECT_TRUE(is_free(path));
}

TEST_F(ostra_config, another_thread_may_unlock) {
    const int mine = write(path);
    int result = -1;
    std::thread([&] { result = release(mine); }).join();
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(is_free(path));
}

TEST_F(ostra_config, four_threads_and_their_counter) {
    write_file(path, "0");
    const auto count_up = [this] {
        during_pause = [] {
            clock_lead = nanoseconds(0);  // the turn comes some time, however slow the machine is
            sched_yield();
        };
        for (int i = 0; i < 100; ++i) {
            const int handle = write(path);
            if (handle >= 0) write_file(path, std::to_string(std::stoi(contents_of(path)) + 1));
            (void)release(handle);
        }
    };
    std::array<std::thread, 4> threads;
    for (std::thread& thread : threads) thread = std::thread(count_up);
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(contents_of(path), "400");
}

// --- Waiting ------------------------------------------------------------------------------------

TEST_F(ostra_config, free_lock_is_had_without_a_pause) {
    pauses.clear();
    EXPECT_EQ(release(read(path)), 0);
    EXPECT_EQ(release(write(path)), 0);
    EXPECT_TRUE(pauses.empty());
}

TEST_F(ostra_config, waiting_ends_after_five_seconds) {
    const int mine = write(path);
    clock_lead = nanoseconds(0);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(write(path), ostra_lock_timed_out);
    EXPECT_GE(std::chrono::steady_clock::now() - start, longest_wait);
    EXPECT_LE(clock_lead, longest_wait) << "the last pause reached past the end";
    EXPECT_EQ(release(mine), 0);
}

TEST_F(ostra_config, pauses_grow_from_1_to_20_milliseconds) {
    const int mine = write(path);
    pauses.clear();
    EXPECT_EQ(write(path), ostra_lock_timed_out);
    ASSERT_GT(pauses.size(), 7U);
    pauses.resize(7);
    const std::vector<nanoseconds> expected{milliseconds(1), milliseconds(2),  milliseconds(4),
                                            milliseconds(8), milliseconds(16), milliseconds(20),
                                            milliseconds(20)};
    EXPECT_EQ(pauses, expected);
    EXPECT_EQ(release(mine), 0);
}

TEST_F(ostra_config, time_out_leaves_no_descriptor) {
    const int mine = write(path);
    const size_t before = open_descriptors();
    EXPECT_EQ(read(path), ostra_lock_timed_out);
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(release(mine), 0);
}

TEST_F(ostra_config, waiter_moves_on_to_a_lock_file_that_replaced_its_own) {
    locker other(kind::process, path);
    const int removed = write(path);
    ASSERT_EQ(other.ask(write_lock), paused);
    unlink((path + ".lck").c_str());
    const int current = write(path);
    ASSERT_GE(current, 0);
    ASSERT_EQ(release(removed), 0);
    EXPECT_EQ(other.ask(go_on), paused) << "it must not hold a lock file that nobody else finds";
    EXPECT_EQ(release(current), 0);
    EXPECT_GE(other.ask(go_on), 0);
}

// --- The protected file and the lock file -------------------------------------------------------

TEST_F(ostra_config, missing_file_stays_missing) {
    EXPECT_EQ(release(read(path)), 0);
    EXPECT_EQ(release(write(path)), 0);
    EXPECT_FALSE(exists(path));
}

TEST_F(ostra_config, protected_file_is_not_changed) {
    write_file(path, "[gateway]\n");
    struct stat before {};
    struct stat after {};
    ASSERT_EQ(stat(path.c_str(), &before), 0);
    EXPECT_EQ(release(read(path)), 0);
    EXPECT_EQ(release(write(path)), 0);
    ASSERT_EQ(stat(path.c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino);
    EXPECT_EQ(after.st_size, before.st_size);
    EXPECT_EQ(after.st_mtim.tv_sec, before.st_mtim.tv_sec);
    EXPECT_EQ(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec);
    EXPECT_EQ(after.st_ctim.tv_nsec, before.st_ctim.tv_nsec);
    EXPECT_EQ(contents_of(path), "[gateway]\n");
}

TEST_F(ostra_config, protected_file_is_not_even_opened) {
    write_file(path, "[gateway]\n");
    const int watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    ASSERT_GE(inotify_add_watch(watch, path.c_str(), IN_ALL_EVENTS), 0);
    std::array<char, 4096> events{};
    EXPECT_EQ(release(read(path)), 0);
    EXPECT_EQ(release(write(path)), 0);
    EXPECT_EQ(::read(watch, events.data(), events.size()), -1);
    EXPECT_EQ(errno, EAGAIN);
    (void)contents_of(path);
    EXPECT_GT(::read(watch, events.data(), events.size()), 0) << "the watch sees nothing at all";
    close(watch);
}

TEST_F(ostra_config, file_nobody_may_read_can_be_locked) {
    write_file(path, "secret");
    chmod(path.c_str(), 0);
    EXPECT_EQ(release(write(path)), 0);
}

TEST_F(ostra_config, replacing_the_protected_file_keeps_its_lock) {
    write_file(path, "old");
    locker other(kind::process, path);
    ASSERT_GE(other.ask(write_lock), 0);
    write_file(path + ".new", "new");
    ASSERT_EQ(rename((path + ".new").c_str(), path.c_str()), 0);
    EXPECT_EQ(read(path), ostra_lock_timed_out);
}

TEST_F(ostra_config, lock_file_is_empty_and_stays) {
    EXPECT_EQ(release(write(path)), 0);
    struct stat file {};
    ASSERT_EQ(stat((path + ".lck").c_str(), &file), 0);
    EXPECT_TRUE(S_ISREG(file.st_mode));
    EXPECT_EQ(file.st_size, 0);
    EXPECT_EQ(file.st_mode & 07777U, 0644U);
}

TEST_F(ostra_config, umask_decides_who_may_open_the_lock_file) {
    umask(0);
    EXPECT_EQ(release(write(path)), 0);
    struct stat file {};
    ASSERT_EQ(stat((path + ".lck").c_str(), &file), 0);
    EXPECT_EQ(file.st_mode & 07777U, 0666U);
}

TEST_F(ostra_config, lock_file_that_is_only_readable_is_locked) {
    write_file(path + ".lck", "");
    chmod((path + ".lck").c_str(), 0444);
    locker other(kind::process, path);
    ASSERT_GE(other.ask(write_lock), 0);
    EXPECT_EQ(write(path), ostra_lock_timed_out);
}

TEST_F(ostra_config, lock_file_that_is_not_readable_cannot_be_opened) {
    write_file(path + ".lck", "");
    chmod((path + ".lck").c_str(), 0);
    EXPECT_EQ(write(path), ostra_lock_cannot_open);
    EXPECT_EQ(errno, EACCES);
}

TEST_F(ostra_config, lock_file_with_contents_is_left_as_it_is) {
    write_file(path + ".lck", "text");
    EXPECT_EQ(release(write(path)), 0);
    EXPECT_EQ(contents_of(path + ".lck"), "text");
}

// --- What cannot be opened ----------------------------------------------------------------------

TEST_F(ostra_config, missing_directory_is_a_failure) {
    EXPECT_EQ(write(directory + "/missing/options.conf"), ostra_lock_cannot_open);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(exists(directory + "/missing"));
}

TEST_F(ostra_config, read_only_directory_without_lock_file_is_a_failure) {
    chmod(directory.c_str(), 0555);
    EXPECT_EQ(read(path), ostra_lock_cannot_open);
    EXPECT_EQ(errno, EACCES);
}

TEST_F(ostra_config, read_only_directory_with_lock_file_is_locked) {
    EXPECT_EQ(release(write(path)), 0);
    chmod(directory.c_str(), 0555);
    chmod((path + ".lck").c_str(), 0444);
    EXPECT_EQ(release(write(path)), 0);
}

TEST_F(ostra_config, read_only_file_system_without_lock_file_is_a_failure) {
    EXPECT_EQ(read("/usr/share/options.conf"), ostra_lock_cannot_open);
    EXPECT_EQ(errno, EROFS);
}

TEST_F(ostra_config, symbolic_link_in_place_of_the_lock_file_is_refused) {
    write_file(directory + "/victim", "text");
    ASSERT_EQ(symlink("victim", (path + ".lck").c_str()), 0);
    EXPECT_EQ(write(path), ostra_lock_cannot_open);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_EQ(contents_of(directory + "/victim"), "text");
}

TEST_F(ostra_config, dangling_link_in_place_of_the_lock_file_creates_nothing) {
    ASSERT_EQ(symlink("victim", (path + ".lck").c_str()), 0);
    EXPECT_EQ(write(path), ostra_lock_cannot_open);
    EXPECT_FALSE(exists(directory + "/victim"));
}

TEST_F(ostra_config, directory_in_place_of_the_lock_file_is_refused) {
    ASSERT_EQ(mkdir((path + ".lck").c_str(), 0555), 0);
    EXPECT_EQ(read(path), ostra_lock_cannot_open);
}

TEST_F(ostra_config, fifo_in_place_of_the_lock_file_is_refused_at_once) {
    ASSERT_EQ(mkfifo((path + ".lck").c_str(), 0444), 0);
    const size_t before = open_descriptors();
    EXPECT_EQ(read(path), ostra_lock_cannot_open);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(ostra_config, no_descriptor_left_is_a_failure) {
    const auto body = [this] {
        const rlimit none{.rlim_cur = 0, .rlim_max = 0};
        setrlimit(RLIMIT_NOFILE, &none);
        return write(path) == ostra_lock_cannot_open && errno == EMFILE ? 0 : 1;
    };
    EXPECT_EQ(in_child(body), 0);
}

TEST_F(ostra_config, longest_name_is_locked_and_a_longer_one_refused) {
    const std::string longest = directory + "/" + std::string(251, 'n');
    EXPECT_EQ(release(write(longest)), 0);
    EXPECT_EQ(write(longest + "n"), ostra_lock_cannot_open);
    EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST_F(ostra_config, path_without_a_file_name_is_a_bad_argument) {
    EXPECT_EQ(Ini_Conf_Read_Lock_File(nullptr), ostra_lock_bad_argument);
    EXPECT_EQ(Ini_Conf_Write_Lock_File(nullptr), ostra_lock_bad_argument);
    for (const char* end : {"/", "/.", "/.."}) {
        EXPECT_EQ(write(directory + end), ostra_lock_bad_argument) << end;
    }
    for (const char* whole : {"", "/", ".", ".."}) {
        EXPECT_EQ(write(whole), ostra_lock_bad_argument) << whole;
    }
    EXPECT_TRUE(std::filesystem::is_empty(directory));
}

// --- Spellings of one path ----------------------------------------------------------------------

class ostra_config_spelling : public ostra_config {
  protected:
    // Both spellings lead to one lock, and it lies where it is said to.
    void expect_shared(const std::string& one, const std::string& other,
                       const std::string& lock_file) {
        for (const auto& [held, wanted] : {std::pair(one, other), std::pair(other, one)}) {
            locker holder(kind::process, held);
            ASSERT_GE(holder.ask(write_lock), 0);
            EXPECT_EQ(write(wanted), ostra_lock_timed_out) << held << " against " << wanted;
        }
        EXPECT_TRUE(exists(lock_file));
    }
};

TEST_F(ostra_config_spelling, directory_link_leads_to_the_same_lock) {
    const std::string link = directory + "/link";
    mkdir((directory + "/real").c_str(), 0755);
    ASSERT_EQ(symlink("real", link.c_str()), 0);
    expect_shared(link + "/a.conf", directory + "/real/a.conf", directory + "/real/a.conf.lck");
}

TEST_F(ostra_config_spelling, relative_path_leads_to_the_same_lock) {
    ASSERT_EQ(chdir(directory.c_str()), 0);
    expect_shared("options.conf", path, path + ".lck");
    expect_shared("./../" + directory.substr(5) + "//options.conf", path, path + ".lck");
}

TEST_F(ostra_config_spelling, link_to_a_file_shares_the_lock_of_its_target) {
    mkdir((directory + "/real").c_str(), 0755);
    const std::string target = directory + "/real/a.conf";
    write_file(target, "text");
    ASSERT_EQ(symlink("real/a.conf", path.c_str()), 0);
    expect_shared(path, target, target + ".lck");
    EXPECT_FALSE(exists(path + ".lck"));
}

TEST_F(ostra_config_spelling, chain_of_absolute_and_relative_links_is_followed) {
    mkdir((directory + "/real").c_str(), 0755);
    const std::string middle = directory + "/real/middle";
    const std::string target = directory + "/target.conf";
    ASSERT_EQ(symlink(middle.c_str(), path.c_str()), 0);
    ASSERT_EQ(symlink("../target.conf", middle.c_str()), 0);
    expect_shared(path, target, target + ".lck");
}

TEST_F(ostra_config_spelling, relative_link_in_the_working_directory_is_followed) {
    ASSERT_EQ(chdir(directory.c_str()), 0);
    ASSERT_EQ(symlink("target.conf", "link.conf"), 0);
    expect_shared("link.conf", "target.conf", directory + "/target.conf.lck");
}

TEST_F(ostra_config_spelling, link_to_a_missing_file_shares_the_lock_of_that_file) {
    const std::string target = directory + "/later.conf";
    ASSERT_EQ(symlink("later.conf", path.c_str()), 0);
    expect_shared(path, target, target + ".lck");
    EXPECT_FALSE(exists(target));
}

TEST_F(ostra_config_spelling, circle_of_links_is_a_failure) {
    ASSERT_EQ(symlink("options.conf", path.c_str()), 0);
    EXPECT_EQ(write(path), ostra_lock_cannot_open);
    EXPECT_EQ(errno, ELOOP);
}

TEST_F(ostra_config_spelling, link_to_a_directory_by_its_slash_is_a_bad_argument) {
    mkdir((directory + "/real").c_str(), 0755);
    ASSERT_EQ(symlink("real/", path.c_str()), 0);
    EXPECT_EQ(write(path), ostra_lock_bad_argument);
}

// --- Handles ------------------------------------------------------------------------------------

TEST_F(ostra_config, number_that_is_no_handle_is_refused_and_stays_open) {
    const int foreign = open("/dev/null", O_RDONLY | O_CLOEXEC);
    for (const int number : {-1, INT_MIN, INT_MAX, 0, foreign}) {
        EXPECT_EQ(release(number), ostra_lock_bad_argument) << number;
    }
    EXPECT_GE(fcntl(foreign, F_GETFD), 0);
    EXPECT_GE(fcntl(0, F_GETFD), 0);
    close(foreign);
}

TEST_F(ostra_config, failures_are_no_handles) {
    for (int failure = ostra_lock_bad_argument; failure >= ostra_lock_out_of_memory; --failure) {
        EXPECT_EQ(release(failure), ostra_lock_bad_argument);
    }
}

TEST_F(ostra_config, second_unlock_is_refused) {
    const int handle = write(path);
    EXPECT_EQ(release(handle), 0);
    EXPECT_EQ(release(handle), ostra_lock_bad_argument);
}

TEST_F(ostra_config, second_unlock_spares_whoever_got_the_number) {
    for (const std::string& file : {std::string("/dev/null"), path + ".lck"}) {
        const int handle = write(path);
        EXPECT_EQ(release(handle), 0);
        const int foreign = open(file.c_str(), O_RDONLY | O_CLOEXEC);
        ASSERT_EQ(foreign, handle);
        EXPECT_EQ(release(handle), ostra_lock_bad_argument) << file;
        EXPECT_GE(fcntl(foreign, F_GETFD), 0) << file;
        close(foreign);
    }
}

TEST_F(ostra_config, handle_whose_descriptor_the_program_closed_is_refused) {
    const int handle = write(path);
    close(handle);
    const int foreign = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(foreign, handle);
    EXPECT_EQ(release(handle), ostra_lock_bad_argument);
    EXPECT_GE(fcntl(foreign, F_GETFD), 0);
    close(foreign);
    EXPECT_TRUE(is_free(path));
}

TEST_F(ostra_config, number_taken_over_from_a_closed_descriptor_is_one_handle) {
    const int lost = write(path);
    close(lost);
    const int handle = write(path + "2");
    ASSERT_EQ(handle, lost);
    EXPECT_EQ(release(handle), 0);
    EXPECT_EQ(release(handle), ostra_lock_bad_argument);
}

TEST_F(ostra_config, waiting_lock_is_no_handle_yet) {
    const int mine = write(path);
    const int next = dup(0);  // the lowest free number, which the waiting lock will take
    close(next);
    int result = 0;
    during_pause = [&] { result = Ini_Conf_Unlock_File(next); };
    EXPECT_EQ(write(path), ostra_lock_timed_out);
    during_pause = nullptr;
    EXPECT_EQ(result, ostra_lock_bad_argument);
    EXPECT_EQ(release(mine), 0);
}

TEST_F(ostra_config, handle_may_be_0) {
    const auto body = [this] {
        close(0);
        const int handle = write(path);
        return handle == 0 && release(handle) == 0 && fcntl(0, F_GETFD) == -1 ? 0 : 1;
    };
    EXPECT_EQ(in_child(body), 0);
}

TEST_F(ostra_config, many_handles_are_told_apart) {
    const size_t before = open_descriptors();
    std::set<int> handles;
    for (int i = 0; i < 500; ++i) handles.insert(write(path + std::to_string(i)));
    EXPECT_EQ(handles.size(), 500U);
    EXPECT_GE(*handles.begin(), 0);
    for (const int handle : handles) EXPECT_EQ(release(handle), 0);
    EXPECT_EQ(open_descriptors(), before);
}

// --- Children and programs ----------------------------------------------------------------------

TEST_F(ostra_config, descriptor_is_close_on_exec) {
    const int handle = write(path);
    EXPECT_EQ(fcntl(handle, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(release(handle), 0);
}

TEST_F(ostra_config, program_that_replaces_the_holder_does_not_hold) {
    message_pipe in;
    message_pipe out;
    const pid_t child = fork();
    if (child == 0) {
        dup2(in.end(0), 0);
        dup2(out.end(1), 1);
        if (write(path) < 0) _exit(1);
        execl("/bin/cat", "cat", nullptr);
        _exit(1);
    }
    out.close_end(1);
    in.send(7);
    EXPECT_EQ(out.receive(), 7) << "the other program runs once it echoes";
    EXPECT_TRUE(is_free(path));
    in.close_end(0);
    in.close_end(1);
    waitpid(child, nullptr, 0);
}

TEST_F(ostra_config, forked_child_has_no_handle_of_its_parent) {
    const int mine = write(path);
    const auto body = [&] {
        return fcntl(mine, F_GETFD) == -1 && release(mine) == ostra_lock_bad_argument ? 0 : 1;
    };
    EXPECT_EQ(in_child(body), 0);
    EXPECT_EQ(write(path), ostra_lock_timed_out) << "the parent still holds it";
    EXPECT_EQ(release(mine), 0);
}

TEST_F(ostra_config, forked_child_spares_a_number_the_parent_gave_away) {
    const int handle = write(path);
    close(handle);
    const int foreign = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(foreign, handle);
    EXPECT_EQ(in_child([&] { return fcntl(foreign, F_GETFD) >= 0 ? 0 : 1; }), 0);
    close(foreign);
}

TEST_F(ostra_config, child_forked_while_another_thread_waits_keeps_nothing) {
    const int mine = write(path);
    locker waiter(kind::thread, path);
    ASSERT_EQ(waiter.ask(write_lock), paused);
    EXPECT_EQ(open_lock_files(), 2);
    EXPECT_EQ(in_child(open_lock_files), 0);
    EXPECT_EQ(release(mine), 0);
    EXPECT_GE(waiter.ask(go_on), 0);
    EXPECT_EQ(waiter.ask(unlock), 0);
}

TEST_F(ostra_config, forked_child_takes_locks_of_its_own) {
    const int mine = read(path);
    const auto body = [this] { return release(read(path)) == 0 ? 0 : 1; };
    EXPECT_EQ(in_child(body), 0);
    EXPECT_EQ(release(mine), 0);
}

TEST_F(ostra_config, unlock_frees_at_once_though_a_copy_of_the_descriptor_lives) {
    const int mine = write(path);
    const int copy = dup(mine);  // as a child has between vfork and exec
    EXPECT_EQ(release(mine), 0);
    EXPECT_TRUE(is_free(path));
    close(copy);
}

// --- The library as others see it ---------------------------------------------------------------

TEST_F(ostra_config, c_program_locks_and_unlocks) {
    EXPECT_EQ(c11_write_lock_and_unlock(path.c_str()), 0);
    EXPECT_EQ(c11_write_lock_and_unlock(nullptr), ostra_lock_bad_argument);
}

TEST_F(ostra_config, library_exports_the_three_functions_and_nothing_else) {
    const std::unique_ptr<FILE, int (*)(FILE*)> nm(
        popen("nm --dynamic --defined-only --format=just-symbols " OSTRA_CONFIG_LIBRARY, "r"),
        pclose);
    ASSERT_NE(nm, nullptr);
    std::string symbols;
    for (int c = fgetc(nm.get()); c != EOF; c = fgetc(nm.get())) {
        symbols.push_back(static_cast<char>(c));
    }
    EXPECT_EQ(symbols, "Ini_Conf_Read_Lock_File\nIni_Conf_Unlock_File\nIni_Conf_Write_Lock_File\n");
}
}  // namespace
