// A VFS below the commit layer that sees every call on a database and the files beside it, and can
// make each of them fail, do half its work, or be the last one of the process.
#ifndef TESTS_SUPPORT_FAULT_VFS_H
#define TESTS_SUPPORT_FAULT_VFS_H

#include <sqlite3.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace fault_vfs {

enum class call { open, write, truncate, sync, remove, read, size, lock, unlock, access };

struct step {
    call what;
    std::string path;
    int64_t offset = 0;                        // of a write or read; the size of a truncation
    std::string bytes{};                       // of a write
    bool is_new = false;                       // an opening that creates the file
    bool syncs_folder = false;                 // a sync or removal that makes names durable as well
    std::function<void(size_t)> write_part{};  // writes only so many bytes
};

// Whether a call changes anything on the disk.
bool is_change(const step& s);

// When set, called before each call; a result other than SQLITE_OK is returned in place of it. Not
// called while it runs itself.
extern std::function<int(const step&)> before;

// --- Faults -------------------------------------------------------------------------------------

struct fault {
    const char* name;
    bool lasts;                // from its call on; otherwise it happens once
    int (*make)(const step&);  // SQLITE_OK: a call that this fault does not meet
};

// EIO, short and late writes, a full disk, failed syncs; those that can, once and lasting.
extern const std::vector<fault> faults;

// Makes the n-th call that the fault can meet fail, counted from 1, and sets was_met then. Uses
// before.
void fail_nth(const fault& f, size_t n, bool& was_met);

// Ends the process at its n-th call that changes anything: before it or, of a write, after half of
// it. Uses before.
void end_at_change(size_t n, bool in_the_middle, int status);

// Puts this VFS over SQLite's default one and makes it the default. Once in a process.
void install();

}  // namespace fault_vfs

#endif  // TESTS_SUPPORT_FAULT_VFS_H
