// File locks: flock(2) on a lock file that lies beside the protected file.
//
// A lock of flock belongs to the open file description. Every lock call opens its own, so threads
// exclude each other like processes do, closing any other descriptor of the file frees nothing, and
// the kernel frees the lock of a process that died. A handle is the number of that descriptor.

// The tree is compiled with hidden symbols; what the public header declares is the exception.
#pragma GCC visibility push(default)
#include "ostra_config.h"
#pragma GCC visibility pop

#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <exception>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {
using std::chrono::steady_clock;

// flock knows no time-out, so waiting is trying again after a pause that doubles.
constexpr std::chrono::milliseconds longest_wait{5000};
constexpr std::chrono::milliseconds first_pause{1};
constexpr std::chrono::milliseconds longest_pause{20};

constexpr int most_links = 40;  // as many as the kernel follows in one path

struct open_lock {
    int descriptor;
    dev_t device;
    ino_t inode;
    bool held;  // false while its lock call still waits: not a handle yet
};

// Every lock file this process has open. Never destroyed, for other threads may still unlock while
// the process exits.
std::vector<open_lock>& open_locks = *new std::vector<open_lock>;
constinit std::mutex open_locks_guard;

bool is_file(const open_lock& lock, const struct stat& file) {
    return file.st_dev == lock.device && file.st_ino == lock.inode;
}

// False when the program closed the descriptor by itself, as a daemon that closes every number
// does. The number may be somebody else's by now and must be left alone.
bool still_open(const open_lock& lock) {
    struct stat file {};
    return fstat(lock.descriptor, &file) == 0 && is_file(lock, file);
}

void close_lock(const open_lock& lock) {
    if (still_open(lock)) close(lock.descriptor);
}

open_lock* find_lock(int descriptor) {
    const auto found = std::ranges::find(open_locks, descriptor, &open_lock::descriptor);
    return found == open_locks.end() ? nullptr : &*found;
}

void forget_lock(int descriptor) {
    std::erase_if(open_locks, [=](const open_lock& lock) { return lock.descriptor == descriptor; });
}

void before_fork() { open_locks_guard.lock(); }
void after_fork_in_parent() { open_locks_guard.unlock(); }

// The child shares its parent's open file descriptions and would keep the locks of a parent that
// died. clear() releases no memory, so nothing here is forbidden in the child of a threaded
// process.
void after_fork_in_child() {
    std::ranges::for_each(open_locks, close_lock);
    open_locks.clear();
    open_locks_guard.unlock();
}

// Done while the library is loaded, before any lock can be taken. It fails only without memory.
const int fork_setup = pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);

int open_retrying(const char* path, int flags) {
    constexpr mode_t everyone = 0666;
    int descriptor = -1;
    do {
        // O_NONBLOCK: a FIFO in the lock file's place must not stop the caller.
        descriptor = open(path, flags | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, everyone);
    } while (descriptor < 0 && errno == EINTR);
    return descriptor;
}

// Opens the lock file, made when missing. One that somebody else made, or that lies on a read-only
// file system, may be readable only: that is enough for flock. Returns -1 with errno.
int open_lock_file(const char* path) {
    const int writable = open_retrying(path, O_RDWR | O_CREAT);
    if (writable >= 0) return writable;
    const int reason = errno;
    if (reason != EACCES && reason != EPERM && reason != EROFS) return -1;
    const int readable = open_retrying(path, O_RDONLY);
    if (readable < 0) errno = reason;
    return readable;
}

// A lock file opened and noted, without its lock yet. Closed at its end unless kept as a handle.
class lock_attempt {
  public:
    explicit lock_attempt(const char* lock_path);
    lock_attempt(const lock_attempt&) = delete;
    lock_attempt& operator=(const lock_attempt&) = delete;
    ~lock_attempt();

    bool opened() const { return lock_.descriptor >= 0; }
    int wait(int operation, steady_clock::time_point deadline) const;
    bool still_named(const char* lock_path) const;
    int keep();

  private:
    open_lock lock_{.descriptor = -1, .device = 0, .inode = 0, .held = false};
};

// Opening and noting are one step under the guard, so no child is forked with an unknown one. When
// it does not open, errno says why.
lock_attempt::lock_attempt(const char* lock_path) {
    const std::lock_guard guard(open_locks_guard);
    open_locks.reserve(open_locks.size() + 1);
    const int descriptor = open_lock_file(lock_path);
    if (descriptor < 0) return;
    struct stat file {};
    if (fstat(descriptor, &file) != 0 || !S_ISREG(file.st_mode)) {
        close(descriptor);
        errno = EINVAL;
        return;
    }
    forget_lock(descriptor);  // left over when the program closed that number by itself
    lock_ = {.descriptor = descriptor, .device = file.st_dev, .inode = file.st_ino, .held = false};
    open_locks.push_back(lock_);
}

lock_attempt::~lock_attempt() {
    if (!opened()) return;
    const int reason = errno;
    const std::lock_guard guard(open_locks_guard);
    forget_lock(lock_.descriptor);
    close_lock(lock_);
    errno = reason;
}

// Returns 0 with the lock taken, or a failure.
int lock_attempt::wait(int operation, steady_clock::time_point deadline) const {
    for (auto pause = first_pause;; pause = std::min(2 * pause, longest_pause)) {
        if (flock(lock_.descriptor, operation | LOCK_NB) == 0) return 0;
        if (errno != EWOULDBLOCK && errno != EINTR) return ostra_lock_cannot_lock;
        const steady_clock::duration left = deadline - steady_clock::now();
        if (left <= left.zero()) return ostra_lock_timed_out;
        std::this_thread::sleep_for(std::min<steady_clock::duration>(pause, left));
    }
}

// False when somebody removed or replaced the lock file while this one waited for it: its lock
// would exclude nobody who comes later.
bool lock_attempt::still_named(const char* lock_path) const {
    struct stat file {};
    return lstat(lock_path, &file) == 0 && is_file(lock_, file);
}

int lock_attempt::keep() {
    const std::lock_guard guard(open_locks_guard);
    if (open_lock* noted = find_lock(lock_.descriptor)) noted->held = true;
    return std::exchange(lock_.descriptor, -1);
}

// Replaces the path by the one that its last component leads to as a symbolic link, which need not
// exist. Links among the folders need no care: the kernel follows them. False with errno for a
// circle.
bool follow_links(std::string& path) {
    std::array<char, PATH_MAX> target{};
    for (int links = 0; links <= most_links; ++links) {
        const ssize_t length = readlink(path.c_str(), target.data(), target.size());
        if (length < 0) return true;  // no link; what else is wrong shows when the lock file opens
        const size_t last_slash = path.rfind('/');
        const bool same_folder = target[0] != '/' && last_slash != std::string::npos;
        path.resize(same_folder ? last_slash + 1 : 0);
        path.append(target.data(), static_cast<size_t>(length));
    }
    errno = ELOOP;
    return false;
}

bool has_file_name(const std::string& path) {
    const size_t last_slash = path.rfind('/');
    const std::string name = last_slash == std::string::npos ? path : path.substr(last_slash + 1);
    return !name.empty() && name != "." && name != "..";
}

int lock_file_of(std::string path, int operation) {
    if (!has_file_name(path)) return ostra_lock_bad_argument;
    if (!follow_links(path)) return ostra_lock_cannot_open;
    if (!has_file_name(path)) return ostra_lock_bad_argument;
    path += ".lck";
    const auto deadline = steady_clock::now() + longest_wait;
    do {
        lock_attempt attempt(path.c_str());
        if (!attempt.opened()) return ostra_lock_cannot_open;
        const int status = attempt.wait(operation, deadline);
        if (status != 0) return status;
        if (attempt.still_named(path.c_str())) return attempt.keep();
    } while (steady_clock::now() < deadline);
    return ostra_lock_timed_out;
}

int take_lock(const char* path, int operation) {
    if (path == nullptr) return ostra_lock_bad_argument;
    if (fork_setup != 0) return ostra_lock_out_of_memory;
    try {
        return lock_file_of(path, operation);
    } catch (const std::exception&) {  // nothing above throws but for want of memory
        return ostra_lock_out_of_memory;
    }
}
}  // namespace

int Ini_Conf_Read_Lock_File(const char* path) { return take_lock(path, LOCK_SH); }

int Ini_Conf_Write_Lock_File(const char* path) { return take_lock(path, LOCK_EX); }

int Ini_Conf_Unlock_File(int handle) {
    const std::lock_guard guard(open_locks_guard);
    const open_lock* found = find_lock(handle);
    if (found == nullptr || !found->held) return ostra_lock_bad_argument;
    const open_lock lock = *found;
    forget_lock(handle);
    if (!still_open(lock)) return ostra_lock_bad_argument;
    // A child between vfork and exec has a copy of the descriptor, and closing alone would leave
    // the lock to it.
    (void)flock(handle, LOCK_UN);
    close(handle);
    return 0;
}
