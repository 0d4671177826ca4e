// A VFS below the commit layer that sees every call on a database and the files beside it, and can
// make each of them fail, do half its work, or be the last one of the process.
#ifndef TESTS_SUPPORT_FAULT_VFS_H
#define TESTS_SUPPORT_FAULT_VFS_H

#include <sqlite3.h>

#include <cstdint>
#include <functional>
#include <string>

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

// Puts this VFS over SQLite's default one and makes it the default. Once in a process.
void install();

}  // namespace fault_vfs

#endif  // TESTS_SUPPORT_FAULT_VFS_H
