// The side file of a database: one place for one record.
#include "side_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <new>

#include "run_writer.h"

namespace commit_vfs {
namespace {

// As a journal, so that it gets the database's mode and owner, and its folder is synced with it.
constexpr int open_flags =
    SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_MAIN_JOURNAL | SQLITE_OPEN_NOFOLLOW;

page_kind kind_of(const page_set::page_map::value_type& page) {
    return page.second ? page_kind::data : page_kind::zeros;
}

uint64_t checksum_of(const record_header& header, const page_set& held) {
    record_checksum sum;
    sum.add(&header, sizeof header);
    for (const auto& page : held.pages()) {
        const record_page row = {page.first, kind_of(page)};
        sum.add(&row, sizeof row);
    }
    for (const auto& page : held.pages()) {
        if (page.second) sum.add(page.second.get(), header.page_size);
    }
    return sum.value();
}

// How long it may take until it is noticed that somebody has removed the side file.
constexpr std::chrono::seconds moved_check_interval{1};

// A regular file of someone who may write the database anyway. Not the database by another name,
// whose locks would go with the first close.
bool is_trusted(const struct stat& side, const struct stat& database) {
    const bool is_database = side.st_dev == database.st_dev && side.st_ino == database.st_ino;
    return S_ISREG(side.st_mode) && !is_database &&
           (side.st_uid == database.st_uid || side.st_uid == geteuid() || side.st_uid == 0);
}

}  // namespace

side_file::side_file(sqlite3_vfs* base_vfs, const std::string& database_path)
    : base(base_vfs), database(database_path), path(database_path + "-commit") {}

side_file::~side_file() { close(); }

int side_file::look(bool& is_waiting) {
    is_waiting = false;
    const std::lock_guard guard(mutex);
    close_if_moved();
    if (file == nullptr) {
        int exists = 0;
        int rc = base->xAccess(base, path.c_str(), SQLITE_ACCESS_EXISTS, &exists);
        if (rc != SQLITE_OK || exists == 0) return rc;
        rc = open();
        if (rc != SQLITE_OK) return rc;
    }
    char magic[sizeof record_magic];
    const int rc = file->pMethods->xRead(file, magic, sizeof magic, 0);
    if (rc == SQLITE_IOERR_SHORT_READ) return SQLITE_OK;
    is_waiting = rc == SQLITE_OK && memcmp(magic, record_magic, sizeof magic) == 0;
    return rc;
}

int side_file::prepare() {
    const std::lock_guard guard(mutex);
    close_if_moved();
    int rc = file != nullptr ? SQLITE_OK : open();
    if (rc != SQLITE_OK || is_own) return rc;
    rc = discard();
    return rc == SQLITE_OK ? open() : rc;
}

// SQLite's own VFS does so at the first sync of a journal that it has opened.
int side_file::sync_names() {
    const std::lock_guard guard(mutex);
    close();
    const int rc = open();
    return rc == SQLITE_OK ? file->pMethods->xSync(file, SQLITE_SYNC_NORMAL) : rc;
}

int side_file::remove() {
    const std::lock_guard guard(mutex);
    return discard();
}

int side_file::discard() {
    close();
    const int rc = base->xDelete(base, path.c_str(), 0);
    return rc == SQLITE_IOERR_DELETE_NOENT ? SQLITE_OK : rc;
}

int side_file::write(record_header header, const page_set& pages) {
    const std::lock_guard guard(mutex);
    memcpy(header.magic, record_magic, sizeof record_magic);
    header.version = record_version;
    header.page_count = static_cast<uint32_t>(pages.pages().size());
    header.checksum = 0;
    header.checksum = checksum_of(header, pages);
    int rc = SQLITE_IOERR_NOMEM;
    try {
        rc = write_pieces(header, pages);
    } catch (const std::bad_alloc&) {
    }
    if (rc != SQLITE_OK) (void)file->pMethods->xTruncate(file, length);
    return rc;
}

int side_file::write_pieces(const record_header& header, const page_set& held) {
    run_writer out(file, buffer);
    int64_t end = 0;
    int rc = SQLITE_OK;
    const auto append = [&](const void* bytes, size_t count) {
        if (rc == SQLITE_OK) rc = out.add(bytes, count, end);
        end += static_cast<int64_t>(count);
    };
    append(&header, sizeof header);
    for (const auto& page : held.pages()) {
        const record_page row = {page.first, kind_of(page)};
        append(&row, sizeof row);
    }
    for (const auto& page : held.pages()) {
        if (page.second) append(page.second.get(), header.page_size);
    }
    if (rc == SQLITE_OK) rc = out.flush();
    if (rc == SQLITE_OK) length = std::max(length, end);
    return rc;
}

int side_file::sync() {
    const std::lock_guard guard(mutex);
    return file->pMethods->xSync(file, SQLITE_SYNC_NORMAL);
}

int side_file::clear() {
    static constexpr char no_magic[sizeof record_magic] = {};
    const std::lock_guard guard(mutex);
    if (length == 0) return SQLITE_OK;  // on a full disk the zeros would find no room
    const int rc = file->pMethods->xWrite(file, no_magic, sizeof no_magic, 0);
    if (rc == SQLITE_OK && length > side_file_keeps &&
        file->pMethods->xTruncate(file, side_file_keeps) == SQLITE_OK) {
        length = side_file_keeps;
    }
    return rc;
}

int side_file::size(int64_t& bytes) {
    const std::lock_guard guard(mutex);
    sqlite3_int64 found = 0;
    const int rc = file->pMethods->xFileSize(file, &found);
    bytes = found;
    if (rc == SQLITE_OK) length = found;
    return rc;
}

int side_file::read(void* to, int count, int64_t offset) {
    const std::lock_guard guard(mutex);
    return file->pMethods->xRead(file, to, count, offset);
}

// The name must be the one that the database's owner made, before and after the opening.
int side_file::open() {
    struct stat owner = {};
    struct stat found = {};
    if (stat(database.c_str(), &owner) != 0) return SQLITE_IOERR_FSTAT;
    if (lstat(path.c_str(), &found) == 0 && !is_trusted(found, owner)) return SQLITE_CANTOPEN;

    memory.reset(new (std::nothrow) char[static_cast<size_t>(base->szOsFile)]());
    if (!memory) return SQLITE_IOERR_NOMEM;
    auto* opening = reinterpret_cast<sqlite3_file*>(memory.get());
    int flags = 0;
    int rc = base->xOpen(base, path.c_str(), opening, open_flags, &flags);
    if (opening->pMethods == nullptr) return rc != SQLITE_OK ? rc : SQLITE_CANTOPEN;
    file = opening;
    sqlite3_int64 bytes = 0;
    if (rc == SQLITE_OK) rc = file->pMethods->xFileSize(file, &bytes);
    if (rc == SQLITE_OK && (lstat(path.c_str(), &found) != 0 || !is_trusted(found, owner))) {
        rc = SQLITE_CANTOPEN;
    }
    if (rc != SQLITE_OK) {
        close();
        return rc;
    }
    is_own = (flags & SQLITE_OPEN_READONLY) == 0 && found.st_nlink == 1;
    opened = {found.st_dev, found.st_ino};
    looked_at = std::chrono::steady_clock::now();
    length = bytes;
    return SQLITE_OK;
}

void side_file::close() {
    if (file == nullptr) return;
    (void)file->pMethods->xClose(file);
    file = nullptr;
    last_sector = {};
}

void side_file::close_if_moved() {
    const auto time = std::chrono::steady_clock::now();
    if (file == nullptr || time - looked_at < moved_check_interval) return;
    looked_at = time;
    struct stat found = {};
    const bool is_there = lstat(path.c_str(), &found) == 0;
    if (!is_there || identity{found.st_dev, found.st_ino} != opened) close();
}

std::shared_ptr<side_file> share_side_file(sqlite3_vfs* base, const char* database) {
    static std::mutex mutex;
    static std::map<std::string, std::weak_ptr<side_file>> shared;
    const std::lock_guard guard(mutex);
    try {
        std::weak_ptr<side_file>& place = shared[database];
        std::shared_ptr<side_file> found = place.lock();
        if (!found) place = found = std::make_shared<side_file>(base, database);
        return found;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

}  // namespace commit_vfs
