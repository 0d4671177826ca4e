// A database file under the commit layer. docs/commit-layer.md has the states, the order of writes
// and why each point of a crash is safe.
#include "commit_file.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <new>
#include <utility>
#include <vector>

#include "run_writer.h"

namespace commit_vfs {

// What apply() writes. The pages come by their place in the table, in any order.
class page_source {
  public:
    virtual ~page_source() = default;
    virtual size_t count() const = 0;
    virtual uint32_t number(size_t index) const = 0;
    // Sets bytes to the page, which stays until the next call. Returns SQLite's code.
    virtual int bytes(size_t index, const char*& bytes) = 0;
};

namespace {

std::atomic<commit_strength> strength{commit_strength::kill_safe};

constexpr char zeros[largest_page] = {};

// --- Where pages come from ----------------------------------------------------------------------

class held_pages : public page_source {
  public:
    explicit held_pages(const page_set& set) {
        pages.reserve(set.pages().size());
        for (const auto& page : set.pages()) pages.push_back(&page);
    }
    size_t count() const override { return pages.size(); }
    uint32_t number(size_t index) const override { return pages[index]->first; }
    int bytes(size_t index, const char*& bytes) override {
        bytes = pages[index]->second ? pages[index]->second.get() : zeros;
        return SQLITE_OK;
    }

  private:
    std::vector<const page_set::page_map::value_type*> pages;
};

class recorded_pages : public page_source {
  public:
    recorded_pages(byte_source& source, const record& r) : from(source), whole(r) {}
    size_t count() const override { return whole.pages.size(); }
    uint32_t number(size_t index) const override { return whole.pages[index].number; }
    int bytes(size_t index, const char*& bytes) override {
        const bool has_data = whole.pages[index].kind == page_kind::data;
        bytes = has_data ? buffer.data() : zeros;
        if (!has_data) return SQLITE_OK;
        return from.read(buffer.data(), static_cast<int>(whole.header.page_size),
                         whole.data_offsets[index]);
    }

  private:
    byte_source& from;
    const record& whole;
    std::array<char, largest_page> buffer;
};

// --- What SQLite's file format says -------------------------------------------------------------

uint32_t read_u32(const char* bytes) {
    const auto* at = reinterpret_cast<const unsigned char*>(bytes);
    return uint32_t{at[0]} << 24 | uint32_t{at[1]} << 16 | uint32_t{at[2]} << 8 | uint32_t{at[3]};
}

// The database's size in bytes that its first page states; 0 when the statement is out of date. The
// page size is the one stated as well: the last pages that VACUUM writes in the old size state the
// new one.
int64_t stated_size(const char* first_page) {
    constexpr int page_size = 16;  // two bytes, of 65536 the upper ones
    constexpr int change_counter = 24;
    constexpr int page_count = 28;
    constexpr int counter_of_page_count = 92;
    const bool is_current =
        read_u32(first_page + change_counter) == read_u32(first_page + counter_of_page_count);
    const uint32_t size = read_u32(first_page + page_size) >> 16;
    return is_current ? int64_t{read_u32(first_page + page_count)} * (size == 1 ? 65536 : size) : 0;
}

// Where the last of the pages ends.
int64_t end_of(const record_header& header, const page_source& pages) {
    return (int64_t{pages.number(pages.count() - 1)} + 1) * header.page_size;
}

}  // namespace

void set_strength(commit_strength new_strength) { strength = new_strength; }

commit_file::commit_file(sqlite3_vfs* base_vfs, sqlite3_file* base_file, const char* database,
                         bool is_read_only, std::shared_ptr<side_file> side_of_database)
    : base(base_vfs),
      file(base_file),
      path(database),
      read_only(is_read_only),
      side(std::move(side_of_database)) {}

// --- Reading and writing ------------------------------------------------------------------------

int commit_file::read(void* to, int count, int64_t offset) {
    if (is_unreadable) return SQLITE_IOERR_READ;
    const int rc = file->pMethods->xRead(file, to, count, offset);
    if (rc == SQLITE_OK && offset == version_offset && count == sizeof version) {
        memcpy(version, to, sizeof version);
        knows_version = true;
    }
    if (now != phase::holding || (rc != SQLITE_OK && rc != SQLITE_IOERR_SHORT_READ)) return rc;
    auto* bytes = static_cast<char*>(to);
    held.lay_over(bytes, count, offset);
    if (offset + count <= held_size) return SQLITE_OK;
    const int64_t inside = std::max<int64_t>(0, held_size - offset);
    memset(bytes + inside, 0, static_cast<size_t>(count - inside));
    return SQLITE_IOERR_SHORT_READ;
}

int commit_file::write(const void* bytes, int count, int64_t offset) {
    if (!holds_writes()) {
        known_size = -1;
        knows_version = false;
        return file->pMethods->xWrite(file, bytes, count, offset);
    }
    int rc = start_holding();
    if (rc == SQLITE_OK) rc = held.put(bytes, count, offset);
    if (rc == SQLITE_OK) held_size = std::max(held_size, offset + count);
    return rc;
}

// Behind a commit SQLite cuts off the pages that it has vacuumed away; they are no part of the
// database any more.
int commit_file::truncate(int64_t bytes) {
    if (!holds_writes() || now == phase::committed) {
        known_size = -1;
        return file->pMethods->xTruncate(file, bytes);
    }
    const int rc = start_holding();
    if (rc != SQLITE_OK) return rc;
    held.drop_from(bytes);
    held_size = std::min(held_size, bytes);
    return SQLITE_OK;
}

int commit_file::sync(int flags) {
    if (now == phase::committed && is_synced) return SQLITE_OK;
    return file->pMethods->xSync(file, flags);
}

int commit_file::size(sqlite3_int64* bytes) {
    if (now == phase::holding) {
        *bytes = held_size;
        return SQLITE_OK;
    }
    const int rc = file->pMethods->xFileSize(file, bytes);
    known_size = rc == SQLITE_OK && level != SQLITE_LOCK_NONE ? *bytes : -1;
    return rc;
}

bool commit_file::holds_writes() const {
    return level == SQLITE_LOCK_EXCLUSIVE && !keeps_own_journal && strength != commit_strength::off;
}

int commit_file::start_holding() {
    if (now == phase::holding) return SQLITE_OK;
    sqlite3_int64 bytes = known_size;
    const int rc = bytes < 0 ? file->pMethods->xFileSize(file, &bytes) : SQLITE_OK;
    if (rc != SQLITE_OK) return rc;
    held_size = old_size = bytes;
    now = phase::holding;
    return SQLITE_OK;
}

void commit_file::drop() {
    held.clear();
    now = phase::idle;
}

// --- Locks --------------------------------------------------------------------------------------

int commit_file::lock(int wanted) {
    const int before = level;
    int rc = file->pMethods->xLock(file, wanted);
    if (rc != SQLITE_OK) return rc;
    level = std::max(level, wanted);
    may_roll_back = wanted == SQLITE_LOCK_EXCLUSIVE && before == SQLITE_LOCK_SHARED;
    if (before != SQLITE_LOCK_NONE) return SQLITE_OK;
    rc = finish_waiting_record();
    if (rc != SQLITE_OK) (void)unlock(SQLITE_LOCK_NONE);
    return rc;
}

// What is still held never reached its commit: this is the roll-back.
int commit_file::unlock(int wanted) {
    drop();
    const int rc = file->pMethods->xUnlock(file, wanted);
    if (rc != SQLITE_OK) return rc;
    level = std::min(level, wanted);
    keeps_own_journal = open_journals > 0;
    if (level == SQLITE_LOCK_NONE) {
        is_unreadable = false;
        knows_version = false;
        known_size = -1;
    }
    return may_roll_back ? note_ignored_journal() : SQLITE_OK;
}

void commit_file::journal_opened() {
    ++open_journals;
    keeps_own_journal = true;
    may_roll_back = false;
}

// A pager without a journal takes the lock for a hot journal, and leaves it alone. It must not read
// what is to be rolled back.
int commit_file::note_ignored_journal() {
    may_roll_back = false;
    if (level != SQLITE_LOCK_SHARED) return SQLITE_OK;
    int exists = 0;
    const int rc =
        base->xAccess(base, sqlite3_filename_journal(path), SQLITE_ACCESS_EXISTS, &exists);
    is_unreadable = rc != SQLITE_OK || exists != 0;
    return rc;
}

int commit_file::control(int op, void* arg) {
    if (op == SQLITE_FCNTL_SYNC && now == phase::holding) return commit();
    if (op == SQLITE_FCNTL_SIZE_HINT && holds_writes()) return SQLITE_OK;
    return file->pMethods->xFileControl(file, op, arg);
}

// --- Commit -------------------------------------------------------------------------------------

int commit_file::commit() {
    if (read_only) return SQLITE_READONLY;
    const bool is_durable = strength == commit_strength::power_safe;
    known_size = -1;
    leave_out_what_was_cut_off();
    if (held.is_empty()) return held_size < old_size ? SQLITE_IOERR_TRUNCATE : SQLITE_OK;
    record_header header = {};
    int rc = reach_end();
    if (rc == SQLITE_OK) rc = fill_header(header);
    if (rc == SQLITE_OK) rc = write_record(header, is_durable);
    if (rc == SQLITE_OK) rc = apply_held(header, is_durable);
    if (rc != SQLITE_OK) return rc;
    (void)side->clear();  // a record that stays is finished once more, which changes nothing
    note_first_sector();
    held.clear();
    now = phase::committed;
    is_synced = is_durable;
    return SQLITE_OK;
}

int commit_file::apply_held(const record_header& header, bool is_durable) {
    bool is_touched = false;
    int rc = SQLITE_IOERR_NOMEM;
    try {
        held_pages pages(held);
        rc = apply(header, pages, is_touched);
    } catch (const std::bad_alloc&) {
    }
    if (rc == SQLITE_OK && is_durable) rc = file->pMethods->xSync(file, SQLITE_SYNC_NORMAL);
    if (rc != SQLITE_OK && !is_touched) (void)take_back(header, is_durable);
    return rc;
}

void commit_file::note_first_sector() {
    const auto first = held.pages().find(0);
    const bool is_known = first != held.pages().end() && first->second;
    side->last_sector = {};
    if (is_known) memcpy(side->last_sector.data(), first->second.get(), sector_size);
}

// Pages that were written when the cache was full, and vacuumed away later.
void commit_file::leave_out_what_was_cut_off() {
    const auto first = held.pages().find(0);
    if (first == held.pages().end() || !first->second) return;
    const int64_t stated = stated_size(first->second.get());
    if (stated == 0 || stated >= held_size) return;
    held.drop_from(stated);
    held_size = std::min(held_size, std::max(old_size, stated));
}

// The last page may be a free one, which SQLite need not write; the file must reach it even so.
int commit_file::reach_end() {
    const int64_t page_size = held.page_size();
    const int64_t end = (int64_t{held.pages().rbegin()->first} + 1) * page_size;
    if (held_size <= old_size || end >= held_size) return SQLITE_OK;
    return held.put(zeros, held.page_size(), held_size - page_size);
}

int commit_file::fill_header(record_header& header) {
    header.page_size = static_cast<uint32_t>(held.page_size());
    header.old_size = old_size;
    header.new_size = held_size;
    if (strength != commit_strength::power_safe) header.flags = record_in_order;
    if (old_size == 0) return inode(header.inode);
    const std::array<char, sector_size>& last = side->last_sector;
    if (knows_version && last[0] != 0 &&
        memcmp(last.data() + version_offset, version, sizeof version) == 0) {
        memcpy(header.first_sector, last.data(), last.size());
        return SQLITE_OK;
    }
    return read_first_sector(header.first_sector);
}

int commit_file::write_record(const record_header& header, bool is_durable) {
    int rc = header.old_size == 0 ? side->remove() : SQLITE_OK;
    if (rc == SQLITE_OK) rc = side->prepare();
    const bool is_known = memcmp(header.first_sector, side->last_sector.data(), sector_size) == 0;
    if (rc == SQLITE_OK && is_durable && !is_known) rc = side->sync_names();
    if (rc != SQLITE_OK) return rc;
    rc = side->write(header, held);
    if (rc == SQLITE_OK && is_durable) rc = side->sync();
    if (rc != SQLITE_OK) (void)take_back(header, is_durable);
    return rc;
}

// The commit has failed, and no existing byte has been touched. A database that cannot be cut back
// keeps its record.
int commit_file::take_back(const record_header& header, bool is_durable) {
    sqlite3_int64 bytes = 0;
    int rc = file->pMethods->xFileSize(file, &bytes);
    if (rc == SQLITE_OK && bytes > header.old_size) {
        rc = file->pMethods->xTruncate(file, header.old_size);
    }
    if (rc != SQLITE_OK) return rc;
    (void)side->clear();
    if (is_durable) (void)side->sync();
    return SQLITE_OK;
}

// --- Applying a record --------------------------------------------------------------------------

// Writes the pages to the database: first what makes it longer, then the rest, then the first page.
// Sets is_touched as soon as an existing byte may have changed.
int commit_file::apply(const record_header& header, page_source& pages, bool& is_touched) {
    int rc = extend(header, pages);
    if (rc == SQLITE_OK) rc = overwrite(header, pages, is_touched);
    const int64_t written = std::max(header.old_size, end_of(header, pages));
    if (rc != SQLITE_OK || header.new_size >= written) return rc;
    is_touched = true;
    return file->pMethods->xTruncate(file, header.new_size);
}

// Every page from the old end on. Those between, which nobody wrote, get zeros: a hole would want
// room on the disk later.
int commit_file::extend(const record_header& header, page_source& pages) {
    const int64_t page_size = header.page_size;
    run_writer out(file, side->buffer);
    int64_t next = std::max<int64_t>(1, (header.old_size + page_size - 1) / page_size);
    for (size_t n = 0; n < pages.count(); ++n) {
        for (; next <= pages.number(n); ++next) {
            const char* bytes = zeros;
            int rc = next == pages.number(n) ? pages.bytes(n, bytes) : SQLITE_OK;
            if (rc == SQLITE_OK) rc = out.add(bytes, header.page_size, next * page_size);
            if (rc != SQLITE_OK) return rc;
        }
    }
    return out.flush();
}

int commit_file::overwrite(const record_header& header, page_source& pages, bool& is_touched) {
    const int64_t page_size = header.page_size;
    run_writer out(file, side->buffer);
    const auto write_page = [&](size_t n) {
        const char* bytes = nullptr;
        const int rc = pages.bytes(n, bytes);
        return rc == SQLITE_OK ? out.add(bytes, header.page_size, pages.number(n) * page_size) : rc;
    };
    is_touched = header.old_size > 0;
    const size_t first = pages.number(0) == 0 ? 1 : 0;
    int rc = SQLITE_OK;
    for (size_t n = first; n < pages.count() && rc == SQLITE_OK; ++n) {
        if (pages.number(n) * page_size >= header.old_size) break;
        rc = write_page(n);
    }
    if (rc == SQLITE_OK) rc = out.flush();
    if (rc == SQLITE_OK && first == 1) rc = write_page(0);
    return rc == SQLITE_OK ? out.flush() : rc;
}

int commit_file::read_first_sector(char* sector) {
    const int rc = file->pMethods->xRead(file, sector, sector_size, 0);
    return rc == SQLITE_IOERR_SHORT_READ ? SQLITE_OK : rc;  // the rest is zero
}

int commit_file::inode(uint64_t& number) const {
    struct stat found = {};
    if (stat(path, &found) != 0) return SQLITE_IOERR_FSTAT;
    number = found.st_ino;
    return SQLITE_OK;
}

// --- Recovery -----------------------------------------------------------------------------------

// Called under a SHARED lock. The lock is raised past RESERVED, so that nobody takes this for a
// transaction that may be read beside.
int commit_file::finish_waiting_record() {
    bool is_waiting = false;
    int rc = side->look(is_waiting);
    if (rc != SQLITE_OK || !is_waiting) return rc;
    if (read_only) return SQLITE_READONLY_RECOVERY;
    rc = file->pMethods->xLock(file, SQLITE_LOCK_EXCLUSIVE);
    if (rc == SQLITE_OK) rc = finish_record();
    if (rc == SQLITE_OK) rc = file->pMethods->xUnlock(file, SQLITE_LOCK_SHARED);
    return rc;
}

int commit_file::finish_record() {
    record waiting = {};
    bool is_whole = false;
    auto found = database_state::foreign;
    int rc = read_record(*side, waiting, is_whole);
    if (rc == SQLITE_OK && is_whole) rc = compare(waiting, found);
    if (rc == SQLITE_OK && found != database_state::foreign) rc = apply_waiting(waiting, found);
    if (rc != SQLITE_OK) return rc;
    (void)side->clear();
    return SQLITE_OK;
}

int commit_file::apply_waiting(const record& waiting, database_state found) {
    bool is_short = false;
    int rc = lacks_extension(waiting, is_short);
    if (rc == SQLITE_OK) rc = side->sync();
    if (rc != SQLITE_OK) return rc;
    bool is_touched = false;
    try {
        recorded_pages pages(*side, waiting);
        rc = apply(waiting.header, pages, is_touched);
    } catch (const std::bad_alloc&) {
        rc = SQLITE_IOERR_NOMEM;
    }
    if (rc == SQLITE_OK) return file->pMethods->xSync(file, SQLITE_SYNC_NORMAL);
    // The extension cannot be made now. Where nothing else is touched yet, the commit never was.
    const bool is_in_order = (waiting.header.flags & record_in_order) != 0;
    const bool was_touched = !is_in_order || !is_short || found == database_state::after;
    return is_touched || was_touched ? rc : take_back(waiting.header, true);
}

// Whether the process ended before the extension was complete, so that no existing byte is touched.
int commit_file::lacks_extension(const record& waiting, bool& is_short) {
    sqlite3_int64 bytes = 0;
    const int rc = file->pMethods->xFileSize(file, &bytes);
    const int64_t end = (int64_t{waiting.pages.back().number} + 1) * waiting.header.page_size;
    is_short = bytes < end || waiting.header.old_size == 0;
    return rc;
}

// A sector does not tear, so the first one is the database's before the commit or after it. An
// empty database has none to tell it by.
int commit_file::compare(const record& waiting, database_state& state) {
    char found[sector_size] = {};
    char after[sector_size] = {};
    const record_header& header = waiting.header;
    int rc = read_first_sector(found);
    if (rc == SQLITE_OK && waiting.pages[0].number == 0 &&
        waiting.pages[0].kind == page_kind::data) {
        rc = side->read(after, sector_size, waiting.data_offsets[0]);
    }
    uint64_t number = 0;
    if (rc == SQLITE_OK) rc = inode(number);
    if (header.old_size == 0 && number != header.inode) return rc;
    if (waiting.pages[0].number == 0 && memcmp(found, after, sector_size) == 0) {
        state = database_state::after;
    } else if (memcmp(found, header.first_sector, sector_size) == 0) {
        state = database_state::before;
    }
    return rc;
}

}  // namespace commit_vfs
