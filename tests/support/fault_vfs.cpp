// A VFS below the commit layer that sees every call and can make it fail.
#include "support/fault_vfs.h"

#include <unistd.h>

#include <cstddef>

namespace fault_vfs {

std::function<int(const step&)> before;

namespace {

sqlite3_vfs* base = nullptr;

struct seen_state {
    std::string path;
    bool owes_folder_sync;
};
struct seen_file {
    sqlite3_file head;
    seen_state* state;
};

sqlite3_file* below(sqlite3_file* file) {
    return reinterpret_cast<sqlite3_file*>(reinterpret_cast<char*>(file) + sizeof(seen_file));
}
seen_state& state_of(sqlite3_file* file) { return *reinterpret_cast<seen_file*>(file)->state; }

int ask(const step& s) {
    if (!before) return SQLITE_OK;
    std::function<int(const step&)> hook;
    hook.swap(before);
    const int rc = hook(s);
    if (!before) before.swap(hook);
    return rc;
}

int close_file(sqlite3_file* file) {
    delete &state_of(file);
    return below(file)->pMethods->xClose(below(file));
}
int read_file(sqlite3_file* file, void* to, int count, sqlite3_int64 offset) {
    const int rc = ask({.what = call::read, .path = state_of(file).path, .offset = offset});
    return rc != SQLITE_OK ? rc : below(file)->pMethods->xRead(below(file), to, count, offset);
}
int write_file(sqlite3_file* file, const void* bytes, int count, sqlite3_int64 offset) {
    const auto write_part = [&](size_t part) {
        (void)below(file)->pMethods->xWrite(below(file), bytes, static_cast<int>(part), offset);
    };
    const int rc = ask({.what = call::write,
                        .path = state_of(file).path,
                        .offset = offset,
                        .bytes{static_cast<const char*>(bytes), static_cast<size_t>(count)},
                        .write_part = write_part});
    return rc != SQLITE_OK ? rc : below(file)->pMethods->xWrite(below(file), bytes, count, offset);
}
int truncate_file(sqlite3_file* file, sqlite3_int64 size) {
    const int rc = ask({.what = call::truncate, .path = state_of(file).path, .offset = size});
    return rc != SQLITE_OK ? rc : below(file)->pMethods->xTruncate(below(file), size);
}
int sync_file(sqlite3_file* file, int flags) {
    int rc = ask({.what = call::sync,
                  .path = state_of(file).path,
                  .syncs_folder = state_of(file).owes_folder_sync});
    if (rc == SQLITE_OK) rc = below(file)->pMethods->xSync(below(file), flags);
    if (rc == SQLITE_OK) state_of(file).owes_folder_sync = false;
    return rc;
}
int size_file(sqlite3_file* file, sqlite3_int64* size) {
    const int rc = ask({.what = call::size, .path = state_of(file).path});
    return rc != SQLITE_OK ? rc : below(file)->pMethods->xFileSize(below(file), size);
}
int lock_file(sqlite3_file* file, int level) {
    const int rc = ask({.what = call::lock, .path = state_of(file).path});
    return rc != SQLITE_OK ? rc : below(file)->pMethods->xLock(below(file), level);
}
int unlock_file(sqlite3_file* file, int level) {
    const int rc = ask({.what = call::unlock, .path = state_of(file).path});
    return rc != SQLITE_OK ? rc : below(file)->pMethods->xUnlock(below(file), level);
}
int check_reserved(sqlite3_file* file, int* out) {
    return below(file)->pMethods->xCheckReservedLock(below(file), out);
}
int control_file(sqlite3_file* file, int op, void* arg) {
    return below(file)->pMethods->xFileControl(below(file), op, arg);
}
int sector_size(sqlite3_file* file) { return below(file)->pMethods->xSectorSize(below(file)); }
int characteristics(sqlite3_file* file) {
    return below(file)->pMethods->xDeviceCharacteristics(below(file));
}
int map_shared(sqlite3_file* file, int region, int size, int extend, void volatile** out) {
    return below(file)->pMethods->xShmMap(below(file), region, size, extend, out);
}
int lock_shared(sqlite3_file* file, int offset, int count, int flags) {
    return below(file)->pMethods->xShmLock(below(file), offset, count, flags);
}
void barrier(sqlite3_file* file) { below(file)->pMethods->xShmBarrier(below(file)); }
int unmap_shared(sqlite3_file* file, int is_deleted) {
    return below(file)->pMethods->xShmUnmap(below(file), is_deleted);
}

constexpr sqlite3_io_methods methods = {
    2,
    close_file,
    read_file,
    write_file,
    truncate_file,
    sync_file,
    size_file,
    lock_file,
    unlock_file,
    check_reserved,
    control_file,
    sector_size,
    characteristics,
    map_shared,
    lock_shared,
    barrier,
    unmap_shared,
    nullptr,
    nullptr,
};

int open_file(sqlite3_vfs* /*vfs*/, const char* name, sqlite3_file* file, int flags, int* out) {
    constexpr int seen = SQLITE_OPEN_MAIN_DB | SQLITE_OPEN_MAIN_JOURNAL | SQLITE_OPEN_WAL;
    if (name == nullptr || (flags & seen) == 0) return base->xOpen(base, name, file, flags, out);
    file->pMethods = nullptr;
    const bool creates = (flags & SQLITE_OPEN_CREATE) != 0;
    int rc = ask({.what = call::open, .path = name, .is_new = creates && access(name, F_OK) != 0});
    if (rc == SQLITE_OK) rc = base->xOpen(base, name, below(file), flags, out);
    if (rc != SQLITE_OK) return rc;
    const bool is_journal = (flags & SQLITE_OPEN_MAIN_DB) == 0;
    reinterpret_cast<seen_file*>(file)->state = new seen_state{name, creates && is_journal};
    file->pMethods = &methods;
    return SQLITE_OK;
}

int remove_file(sqlite3_vfs* vfs, const char* name, int sync_folder) {
    const int rc = ask({.what = call::remove, .path = name, .syncs_folder = sync_folder != 0});
    return rc != SQLITE_OK ? rc : base->xDelete(vfs, name, sync_folder);
}

int access_file(sqlite3_vfs* vfs, const char* name, int flags, int* out) {
    const int rc = ask({.what = call::access, .path = name});
    return rc != SQLITE_OK ? rc : base->xAccess(vfs, name, flags, out);
}

}  // namespace

bool is_change(const step& s) {
    switch (s.what) {
        case call::open:
            return s.is_new;
        case call::write:
        case call::truncate:
        case call::sync:
        case call::remove:
            return true;
        default:
            return false;
    }
}

// --- Faults -------------------------------------------------------------------------------------

namespace {

int io_error(const step& s) {
    switch (s.what) {
        case call::open:
            return SQLITE_CANTOPEN;
        case call::write:
            return SQLITE_IOERR_WRITE;
        case call::truncate:
            return SQLITE_IOERR_TRUNCATE;
        case call::sync:
            return SQLITE_IOERR_FSYNC;
        case call::remove:
            return SQLITE_IOERR_DELETE;
        case call::read:
            return SQLITE_IOERR_READ;
        case call::size:
            return SQLITE_IOERR_FSTAT;
        case call::lock:
            return SQLITE_IOERR_LOCK;
        case call::unlock:
            return SQLITE_IOERR_UNLOCK;
        case call::access:
            return SQLITE_IOERR_ACCESS;
    }
    return SQLITE_IOERR;
}

int short_write(const step& s) {
    if (s.what != call::write) return SQLITE_OK;
    s.write_part(s.bytes.size() / 2);
    return SQLITE_FULL;
}

int late_write_error(const step& s) {
    if (s.what != call::write) return SQLITE_OK;
    s.write_part(s.bytes.size());
    return SQLITE_IOERR_WRITE;
}

int disk_full(const step& s) { return s.what == call::write ? SQLITE_FULL : SQLITE_OK; }

int failed_sync(const step& s) { return s.what == call::sync ? SQLITE_IOERR_FSYNC : SQLITE_OK; }

}  // namespace

const std::vector<fault> faults = {
    {"EIO, once", false, io_error},           {"EIO, lasting", true, io_error},
    {"short write", false, short_write},      {"late write error", false, late_write_error},
    {"full, once", false, disk_full},         {"full, lasting", true, disk_full},
    {"sync fails, once", false, failed_sync}, {"sync fails, lasting", true, failed_sync},
};

void fail_nth(const fault& f, size_t n, bool& was_met) {
    before = [&f, n, &was_met, seen = size_t{0}](const step& now) mutable {
        if (was_met) return f.lasts ? f.make(now) : SQLITE_OK;
        step probe = now;
        probe.write_part = [](size_t) {};
        if (f.make(probe) == SQLITE_OK || ++seen < n) return SQLITE_OK;
        was_met = true;
        return f.make(now);
    };
}

void end_at_change(size_t n, bool in_the_middle, int status) {
    before = [n, in_the_middle, status, seen = size_t{0}](const step& now) mutable {
        if (!is_change(now) || ++seen < n) return SQLITE_OK;
        if (in_the_middle && now.write_part) now.write_part(now.bytes.size() / 2);
        _exit(status);
    };
}

void install() {
    static sqlite3_vfs vfs;
    if (base != nullptr) return;
    base = sqlite3_vfs_find(nullptr);
    vfs = *base;
    vfs.pNext = nullptr;
    vfs.zName = "fault";
    vfs.szOsFile = static_cast<int>(sizeof(seen_file)) + base->szOsFile;
    vfs.xOpen = open_file;
    vfs.xDelete = remove_file;
    vfs.xAccess = access_file;
    sqlite3_vfs_register(&vfs, 1);
}

}  // namespace fault_vfs
