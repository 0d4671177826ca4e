// The whole of a run.
//
// The order of steps, so that a run can be cut at any instant, by a kill or a power loss, and the
// next one goes on without loss:
//
// 1. The rows are saved into DATABASE-salvage, a file of its own. Cut: it is made anew.
// 2. The damaged file gets its second name, a hard link. Cut: the link is found again.
// 3. Its side files get theirs. Cut: the rest of them follow.
// 4. DATABASE-salvage, synced, is renamed to DATABASE. Cut: before or after, nothing else.
// 5. The oldest of the damaged files go. Cut: they go the next time.
//
// So DATABASE is at every instant the damaged file or the whole new one, and the damaged file is
// never without a name. It is only read.
#include "repair.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>

#include "check.h"
#include "deadline.h"
#include "handles.h"
#include "page_file.h"
#include "replacement.h"
#include "salvage.h"
#include "set_aside.h"

namespace {

// --- The file -----------------------------------------------------------------------------------

// A symbolic link leads to the file that is worked beside. Empty: see errno.
std::string resolve(const std::string& path) {
    const std::unique_ptr<char, decltype(&free)> whole(realpath(path.c_str(), nullptr), free);
    return whole ? whole.get() : "";
}

exit_status status_of(int error) {
    return error == EACCES || error == EPERM || error == EROFS ? exit_status::no_access
                                                               : exit_status::not_repaired;
}

// One run at a time. The lock is the folder's, so it needs no file of its own. Returns 0 or errno.
int lock_folder(const std::string& path, descriptor& folder) {
    const std::string name = std::filesystem::path(path).parent_path().string();
    folder = descriptor(open(name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return folder.is_open() && flock(folder.get(), LOCK_EX | LOCK_NB) == 0 ? 0 : errno;
}

// The bytes that SQLite locks, all of them: no other program reads or writes the file through
// SQLite meanwhile.
bool lock_out_others(int fd) {
    struct flock all = {};
    all.l_type = F_WRLCK;
    all.l_whence = SEEK_SET;
    all.l_start = 0x40000000;
    all.l_len = 512;
    return fcntl(fd, F_OFD_SETLK, &all) == 0;
}

// A daemon that waits for calls holds no lock, but has the file open. The kernel leases a file only
// to somebody who alone has it open; where it has no leases to give, nothing is known.
bool is_open_elsewhere(int fd) {
    if (fcntl(fd, F_SETLEASE, F_WRLCK) != 0) return errno == EAGAIN;
    (void)fcntl(fd, F_SETLEASE, F_UNLCK);
    return false;
}

// --- The line -----------------------------------------------------------------------------------

std::string counted(uint64_t number, const std::string& thing) {
    return std::to_string(number) + " " + thing + (number == 1 ? "" : "s");
}

std::string saved_words(const replacement& saved) {
    std::string words;
    for (const kept_table& table : saved.tables) {
        words += (words.empty() ? "" : ", ") + counted(table.saved, "row") + " of " + table.name;
    }
    return words;
}

std::string not_saved_words(const salvage_result& result) {
    if (result.is_unfinished) return "the time was over, and the rest was not read";
    if (result.broken_rows == 0 && result.missing_pages == 0) return "nothing is known to be lost";
    return "not saved: " + counted(result.broken_rows, "broken row") + ", " +
           counted(result.missing_pages, "unreadable page");
}

// --- The steps ----------------------------------------------------------------------------------

class run {
  public:
    run(std::string given, std::string resolved, std::optional<std::chrono::milliseconds> time)
        : name(std::move(given)), path(std::move(resolved)), budget(time) {}

    outcome go() {
        if (const int error = lock_folder(path, folder); error != 0) {
            if (error == EWOULDBLOCK) return told(exit_status::in_use, "another check is at work");
            return failed(exit_status::no_access, error, "its folder: ");
        }
        if (const int error = open_file(); error != 0) return failed(status_of(error), error);
        if (!S_ISREG(status.st_mode)) return told(exit_status::no_access, "not a regular file");
        if (const std::string odd = odd_side_file(path); !odd.empty()) {
            return told(exit_status::no_access, odd + " is not a regular file");
        }
        if (status.st_size == 0) return told(exit_status::may_start, "empty, as a new one");
        (void)remove_leftover(path);  // one that stays is told when it is in the way
        const check_result checked =
            check_database(path.c_str(), within(check_budget(int64_t{status.st_size})));
        switch (checked.found) {
            case finding::sound:
                return told(exit_status::may_start, "sound");
            case finding::unfinished:
                return told(exit_status::may_start, "no damage found, but not all of it was read");
            case finding::in_use:
                return told(exit_status::in_use, "in use by another program");
            case finding::failed:
                return told(exit_status::no_access, checked.reason);
            case finding::damaged:
                break;
        }
        return repair(checked.reason);
    }

  private:
    outcome told(exit_status result, const std::string& words) const {
        return {result, name + ": " + words};
    }
    outcome failed(exit_status result, int error, const std::string& before = "") const {
        return told(result, before + strerror(error));
    }

    deadline within(deadline::clock::duration usual) const {
        return deadline(budget ? *budget : usual);
    }

    // A look before the opening, which can do something of its own to what is no file.
    int open_file() {
        if (stat(path.c_str(), &status) != 0) return errno;
        if (!S_ISREG(status.st_mode)) return 0;
        file = descriptor(open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
        return file.is_open() ? 0 : errno;
    }

    outcome repair(const std::string& reason) {
        const std::string damaged = "damaged (" + reason + "); ";
        if (!lock_out_others(file.get())) {
            return told(exit_status::in_use, damaged + "in use by another program");
        }
        if (is_open_elsewhere(file.get())) {
            return told(exit_status::in_use, damaged + "another program has it open");
        }
        if (const int error = remove_leftover(path); error != 0) {
            return failed(exit_status::not_repaired, error, damaged + salvage_path(path) + ": ");
        }
        replacement saved;
        int code = saved.create(salvage_path(path));
        salvage_result result;
        if (code == SQLITE_OK) {
            const deadline end = within(salvage_budget);
            result = salvage(page_file(file.get(), end), saved, end);
            code = result.code;
        }
        const std::string log_words = has_log() ? "; its write-ahead log was not read" : "";
        if (code != SQLITE_OK) {
            (void)remove_leftover(path);
            return told(exit_status::not_repaired,
                        damaged + "its rows could not be saved: " + words_of(code));
        }
        // Somebody who has opened it meanwhile would go on writing to it.
        if (is_open_elsewhere(file.get())) {
            (void)remove_leftover(path);
            return told(exit_status::in_use, damaged + "another program has opened it meanwhile");
        }
        std::string kept;
        const int error = exchange(kept);
        if (error != 0) {
            (void)remove_leftover(path);
            return failed(exit_status::not_repaired, error,
                          damaged + "it could not be set aside: ");
        }
        return told(exit_status::may_start, damaged + "saved " + saved_words(saved) + "; " +
                                                not_saved_words(result) + log_words +
                                                "; the damaged file is " + kept);
    }

    // One that SQLite has not brought into the file, because it could not open that.
    bool has_log() const {
        struct stat log = {};
        return stat((path + "-wal").c_str(), &log) == 0 && log.st_size > 0;
    }

    int exchange(std::string& kept) const {
        int error = keep_damaged(path, kept);
        if (error == 0) error = move_side_files(path, kept);
        if (error == 0) error = put_in_place(path);
        if (error == 0) remove_oldest(path, kept);
        return error;
    }

    const std::string name;  // as the caller has it
    const std::string path;
    const std::optional<std::chrono::milliseconds> budget;
    struct stat status = {};
    descriptor file;
    descriptor folder;
};

}  // namespace

outcome check_and_repair(const std::string& path, std::optional<std::chrono::milliseconds> budget) {
    const std::string resolved = resolve(path);
    if (!resolved.empty()) return run(path, resolved, budget).go();
    if (errno == ENOENT) return {exit_status::may_start, path + ": not there yet"};
    return {exit_status::no_access, path + ": " + strerror(errno)};
}
