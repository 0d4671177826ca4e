// The commit layer's VFS: which files it takes over, and SQLite's view of them.
#include "commit_vfs.h"

#include <sqlite3.h>

#include <csignal>
#include <new>
#include <type_traits>

#include "commit_file.h"

namespace {

using commit_vfs::commit_file;

constexpr char vfs_name[] = "ravo-commit";

// What SQLite opens: this, and behind it the file of the VFS below.
struct layer_file {
    sqlite3_file head;
    commit_file* database;  // a journal's is the one that it belongs to
};
static_assert(std::is_trivial_v<layer_file> && sizeof(layer_file) % alignof(std::max_align_t) == 0);

sqlite3_vfs* base = nullptr;

sqlite3_file* below(sqlite3_file* file) {
    return reinterpret_cast<sqlite3_file*>(reinterpret_cast<char*>(file) + sizeof(layer_file));
}

commit_file& database_of(sqlite3_file* file) {
    return *reinterpret_cast<layer_file*>(file)->database;
}

// --- A file whose calls go below ----------------------------------------------------------------

int close_below(sqlite3_file* file) { return below(file)->pMethods->xClose(below(file)); }
int read_below(sqlite3_file* file, void* to, int count, sqlite3_int64 offset) {
    return below(file)->pMethods->xRead(below(file), to, count, offset);
}
int write_below(sqlite3_file* file, const void* bytes, int count, sqlite3_int64 offset) {
    return below(file)->pMethods->xWrite(below(file), bytes, count, offset);
}
int truncate_below(sqlite3_file* file, sqlite3_int64 bytes) {
    return below(file)->pMethods->xTruncate(below(file), bytes);
}
int sync_below(sqlite3_file* file, int flags) {
    return below(file)->pMethods->xSync(below(file), flags);
}
int size_below(sqlite3_file* file, sqlite3_int64* bytes) {
    return below(file)->pMethods->xFileSize(below(file), bytes);
}
int lock_below(sqlite3_file* file, int level) {
    return below(file)->pMethods->xLock(below(file), level);
}
int unlock_below(sqlite3_file* file, int level) {
    return below(file)->pMethods->xUnlock(below(file), level);
}
int check_reserved_below(sqlite3_file* file, int* is_reserved) {
    return below(file)->pMethods->xCheckReservedLock(below(file), is_reserved);
}
int control_below(sqlite3_file* file, int op, void* arg) {
    return below(file)->pMethods->xFileControl(below(file), op, arg);
}
int sector_size_below(sqlite3_file* file) {
    return below(file)->pMethods->xSectorSize(below(file));
}
int characteristics_below(sqlite3_file* file) {
    return below(file)->pMethods->xDeviceCharacteristics(below(file));
}
int map_shared_below(sqlite3_file* file, int region, int size, int extend, void volatile** out) {
    return below(file)->pMethods->xShmMap(below(file), region, size, extend, out);
}
int lock_shared_below(sqlite3_file* file, int offset, int count, int flags) {
    return below(file)->pMethods->xShmLock(below(file), offset, count, flags);
}
void barrier_below(sqlite3_file* file) { below(file)->pMethods->xShmBarrier(below(file)); }
int unmap_shared_below(sqlite3_file* file, int is_deleted) {
    return below(file)->pMethods->xShmUnmap(below(file), is_deleted);
}

// --- A database ---------------------------------------------------------------------------------

int close_database(sqlite3_file* file) {
    delete &database_of(file);
    return close_below(file);
}
int read_database(sqlite3_file* file, void* to, int count, sqlite3_int64 offset) {
    return database_of(file).read(to, count, offset);
}
int write_database(sqlite3_file* file, const void* bytes, int count, sqlite3_int64 offset) {
    return database_of(file).write(bytes, count, offset);
}
int truncate_database(sqlite3_file* file, sqlite3_int64 bytes) {
    return database_of(file).truncate(bytes);
}
int sync_database(sqlite3_file* file, int flags) { return database_of(file).sync(flags); }
int size_database(sqlite3_file* file, sqlite3_int64* bytes) {
    return database_of(file).size(bytes);
}
int lock_database(sqlite3_file* file, int level) { return database_of(file).lock(level); }
int unlock_database(sqlite3_file* file, int level) { return database_of(file).unlock(level); }
int control_database(sqlite3_file* file, int op, void* arg) {
    return database_of(file).control(op, arg);
}
// Where writes are atomic a pager may journal in memory, without a file that tells of it.
int characteristics_of_database(sqlite3_file* file) {
    constexpr int atomic = SQLITE_IOCAP_ATOMIC | SQLITE_IOCAP_ATOMIC512 | SQLITE_IOCAP_ATOMIC1K |
                           SQLITE_IOCAP_ATOMIC2K | SQLITE_IOCAP_ATOMIC4K | SQLITE_IOCAP_ATOMIC8K |
                           SQLITE_IOCAP_ATOMIC16K | SQLITE_IOCAP_ATOMIC32K |
                           SQLITE_IOCAP_ATOMIC64K | SQLITE_IOCAP_BATCH_ATOMIC;
    return characteristics_below(file) & ~atomic;
}

// --- A journal ----------------------------------------------------------------------------------

int close_journal(sqlite3_file* file) {
    database_of(file).journal_closed();
    return close_below(file);
}

// Version 2: no memory mapping, which would read past what is held.
constexpr sqlite3_io_methods database_methods = {
    2,
    close_database,
    read_database,
    write_database,
    truncate_database,
    sync_database,
    size_database,
    lock_database,
    unlock_database,
    check_reserved_below,
    control_database,
    sector_size_below,
    characteristics_of_database,
    map_shared_below,
    lock_shared_below,
    barrier_below,
    unmap_shared_below,
    nullptr,
    nullptr,
};

constexpr sqlite3_io_methods journal_methods = {
    1,
    close_journal,
    read_below,
    write_below,
    truncate_below,
    sync_below,
    size_below,
    lock_below,
    unlock_below,
    check_reserved_below,
    control_below,
    sector_size_below,
    characteristics_below,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
};

// --- Opening ------------------------------------------------------------------------------------

int open_below(const char* name, sqlite3_file* file, int flags, int* out_flags) {
    below(file)->pMethods = nullptr;
    file->pMethods = nullptr;
    const int rc = base->xOpen(base, name, below(file), flags, out_flags);
    if (rc != SQLITE_OK && below(file)->pMethods != nullptr) (void)close_below(file);
    return rc;
}

int open_database(const char* name, sqlite3_file* file, int flags, int* out_flags) {
    auto side = commit_vfs::share_side_file(base, name);
    if (!side) return SQLITE_NOMEM;
    int opened = 0;
    const int rc = open_below(name, file, flags, &opened);
    if (rc != SQLITE_OK) return rc;
    auto* database = new (std::nothrow)
        commit_file(base, below(file), name, (opened & SQLITE_OPEN_READONLY) != 0, std::move(side));
    if (database == nullptr) {
        (void)close_below(file);
        return SQLITE_NOMEM;
    }
    if (out_flags != nullptr) *out_flags = opened;
    reinterpret_cast<layer_file*>(file)->database = database;
    file->pMethods = &database_methods;
    return SQLITE_OK;
}

int open_journal(const char* name, sqlite3_file* file, int flags, int* out_flags) {
    sqlite3_file* owner = sqlite3_database_file_object(name);
    if (owner->pMethods != &database_methods)
        return base->xOpen(base, name, file, flags, out_flags);
    const int rc = open_below(name, file, flags, out_flags);
    if (rc != SQLITE_OK) return rc;
    reinterpret_cast<layer_file*>(file)->database = &database_of(owner);
    file->pMethods = &journal_methods;
    database_of(owner).journal_opened();
    return SQLITE_OK;
}

// Only a pager opens a journal writable, and only a pager's name leads to its database. A journal
// that is just looked at, and every temporary file, is none of the layer's.
int open_file(sqlite3_vfs* /*vfs*/, const char* name, sqlite3_file* file, int flags,
              int* out_flags) {
    constexpr int journal = SQLITE_OPEN_MAIN_JOURNAL | SQLITE_OPEN_WAL;
    if (name != nullptr && (flags & SQLITE_OPEN_MAIN_DB) != 0) {
        return open_database(name, file, flags, out_flags);
    }
    if (name != nullptr && (flags & journal) != 0 && (flags & SQLITE_OPEN_READWRITE) != 0) {
        return open_journal(name, file, flags, out_flags);
    }
    return base->xOpen(base, name, file, flags, out_flags);
}

// A file that reaches the process's limit is then a failed write like any other, not its end, which
// the next process would meet again when it finishes the record. A handler, because a signal that
// is ignored stays so in every program that the process starts.
void outlive_size_limit() {
    struct sigaction action = {};
    if (sigaction(SIGXFSZ, nullptr, &action) != 0 || action.sa_handler != SIG_DFL) return;
    action.sa_handler = [](int) {};
    action.sa_flags = SA_RESTART;
    (void)sigaction(SIGXFSZ, &action, nullptr);
}

}  // namespace

int register_commit_vfs(commit_strength strength) {
    // A copy of the one below, its private data included, so that all but the opening is its own.
    static sqlite3_vfs layer;
    commit_vfs::set_strength(strength);
    if (base != nullptr) return SQLITE_OK;
    sqlite3_vfs* const found = sqlite3_vfs_find(nullptr);
    if (found == nullptr) return SQLITE_ERROR;
    layer = *found;
    layer.pNext = nullptr;
    layer.zName = vfs_name;
    layer.szOsFile = static_cast<int>(sizeof(layer_file)) + found->szOsFile;
    layer.xOpen = open_file;
    base = found;
    const int rc = sqlite3_vfs_register(&layer, 1);
    if (rc != SQLITE_OK) base = nullptr;
    if (rc == SQLITE_OK) outlive_size_limit();
    return rc;
}
