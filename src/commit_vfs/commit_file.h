// A database file under the commit layer: what SQLite's VFS has opened, and what a transaction that
// keeps no journal has written and not yet committed.
#ifndef COMMIT_VFS_COMMIT_FILE_H
#define COMMIT_VFS_COMMIT_FILE_H

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <string>

#include "commit_vfs.h"
#include "page_set.h"
#include "record.h"
#include "side_file.h"

namespace commit_vfs {

class page_source;

// Every operation returns SQLite's code and has the meaning of SQLite's of the same name.
class commit_file {
  public:
    // path is the name that SQLite opens, and lives as long as this.
    commit_file(sqlite3_vfs* base, sqlite3_file* file, const char* path, bool read_only,
                std::shared_ptr<side_file> side);
    commit_file(const commit_file&) = delete;
    commit_file& operator=(const commit_file&) = delete;

    int read(void* to, int count, int64_t offset);
    int write(const void* bytes, int count, int64_t offset);
    int truncate(int64_t bytes);
    int sync(int flags);
    int size(sqlite3_int64* bytes);
    int lock(int level);
    int unlock(int level);
    int control(int op, void* arg);

    // A journal or a log of this connection was opened, writable, or closed.
    void journal_opened();
    void journal_closed() { --open_journals; }

  private:
    enum class phase { idle, holding, committed };
    enum class database_state { before, after, foreign };  // to a record

    bool holds_writes() const;
    int start_holding();
    void drop();

    int commit();
    void leave_out_what_was_cut_off();
    int reach_end();
    int fill_header(record_header& header);
    int write_record(const record_header& header, bool is_durable);
    int apply_held(const record_header& header, bool is_durable);
    void note_first_sector();
    int take_back(const record_header& header, bool is_durable);

    int finish_waiting_record();
    int finish_record();
    int apply_waiting(const record& waiting, database_state found);
    int lacks_extension(const record& waiting, bool& is_short);
    int compare(const record& waiting, database_state& state);

    int apply(const record_header& header, page_source& pages, bool& is_touched);
    int extend(const record_header& header, page_source& pages);
    int overwrite(const record_header& header, page_source& pages, bool& is_touched);
    int read_first_sector(char* sector);
    int inode(uint64_t& number) const;
    int note_ignored_journal();

    sqlite3_vfs* const base;
    sqlite3_file* const file;
    const char* const path;
    const bool read_only;
    const std::shared_ptr<side_file> side;

    int level = SQLITE_LOCK_NONE;
    int open_journals = 0;
    bool keeps_own_journal = false;  // under this lock: a journal goes before the file is cut
    phase now = phase::idle;
    bool is_synced = false;      // the commit has synced the database already
    bool may_roll_back = false;  // EXCLUSIVE straight from SHARED: for a hot journal
    bool is_unreadable = false;  // a hot journal was left where it is
    page_set held;
    int64_t held_size = 0;  // of the database, as SQLite sees it
    int64_t old_size = 0;   // of the file itself

    // What SQLite has asked for under this lock, so that a commit need not ask again; -1: nothing.
    static constexpr int64_t version_offset = 24;
    char version[16] = {};  // bytes of the first page by which SQLite tells that nobody has written
    bool knows_version = false;
    int64_t known_size = -1;
};

// The strength of commits from now on.
void set_strength(commit_strength strength);

}  // namespace commit_vfs

#endif  // COMMIT_VFS_COMMIT_FILE_H
