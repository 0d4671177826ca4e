// Records what SQLite writes to the database file.
#include "support/write_recorder.h"

#include <sqlite3.h>

#include <algorithm>

namespace write_recorder {
std::vector<file_change> changes;
}  // namespace write_recorder

namespace {

using write_recorder::changes;

// SQLite's own methods with two put in front. All files of its VFS have the same size and, but for
// their locking, the same methods; so a table for each that occurs is enough.
const sqlite3_io_methods* own = nullptr;
sqlite3_io_methods recording;
sqlite3_vfs recorder;
sqlite3_vfs* base = nullptr;

int record_write(sqlite3_file* file, const void* bytes, int count, sqlite3_int64 offset) {
    changes.push_back({offset, {static_cast<const char*>(bytes), static_cast<size_t>(count)}});
    return own->xWrite(file, bytes, count, offset);
}

int record_truncate(sqlite3_file* file, sqlite3_int64 size) {
    changes.push_back({size, ""});
    return own->xTruncate(file, size);
}

int open_recorded(sqlite3_vfs* /*vfs*/, const char* name, sqlite3_file* file, int flags,
                  int* out_flags) {
    const int rc = base->xOpen(base, name, file, flags, out_flags);
    if (rc != SQLITE_OK || (flags & SQLITE_OPEN_MAIN_DB) == 0) return rc;
    own = file->pMethods;
    recording = *own;
    recording.xWrite = record_write;
    recording.xTruncate = record_truncate;
    file->pMethods = &recording;
    return rc;
}

}  // namespace

namespace write_recorder {

void install() {
    base = sqlite3_vfs_find(nullptr);
    recorder = *base;
    recorder.zName = "recorder";
    recorder.xOpen = open_recorded;
    sqlite3_vfs_register(&recorder, 1);
}

void apply(const file_change& change, std::string& file) {
    const auto offset = static_cast<size_t>(change.offset);
    if (change.bytes.empty()) {
        file.resize(offset);
        return;
    }
    file.resize(std::max(file.size(), offset + change.bytes.size()));
    file.replace(offset, change.bytes.size(), change.bytes);
}

}  // namespace write_recorder
