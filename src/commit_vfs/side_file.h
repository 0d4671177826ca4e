// The side file of a database, "<database>-commit": one place for one record. All handles of a
// process on one database share it. It is used under the database's own lock, so it needs none of
// its own.
#ifndef COMMIT_VFS_SIDE_FILE_H
#define COMMIT_VFS_SIDE_FILE_H

#include <sqlite3.h>
#include <sys/types.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "page_set.h"
#include "record.h"

namespace commit_vfs {

inline constexpr int64_t side_file_keeps = 1 << 20;  // bytes that stay when the record is void

// Every operation returns SQLite's code. A file whose name leads to another one by now, which is
// looked at once a second, is opened anew.
class side_file : public byte_source {
  public:
    // Opens nothing. base is the VFS that opens.
    side_file(sqlite3_vfs* base, const std::string& database);
    ~side_file() override;
    side_file(const side_file&) = delete;
    side_file& operator=(const side_file&) = delete;

    // Whether a record may be waiting. A side file that does not exist is not created.
    int look(bool& is_waiting);

    // Readies the file for a record: opens or creates it. One that may not be written, or that has
    // a second name, makes way for a new one.
    int prepare();
    // Makes the names of this folder durable.
    int sync_names();
    // Removes whatever lies in the place of the side file.
    int remove();

    // Writes a record, over the last one. Its magic, version, number of pages and checksum are
    // filled in here. After a failure the file is as long as before, and its record is to be
    // voided.
    int write(record_header header, const page_set& pages);
    int sync();
    // Voids the record.
    int clear();

    int size(int64_t& bytes) override;
    int read(void* to, int count, int64_t offset) override;

    // The database's first sector as this process's last commit left it.
    std::array<char, sector_size> last_sector{};
    // For whoever writes under the database's EXCLUSIVE lock.
    std::vector<char> buffer;

  private:
    struct identity {
        dev_t device;
        ino_t inode;
        bool operator==(const identity&) const = default;
    };

    int open();
    void close();
    int discard();
    void close_if_moved();
    int write_pieces(const record_header& header, const page_set& pages);

    sqlite3_vfs* const base;
    const std::string database;
    const std::string path;
    std::mutex mutex;  // around every use of file
    std::unique_ptr<char[]> memory;
    sqlite3_file* file = nullptr;  // null: closed
    bool is_own = false;           // may be written, and is no other file by a second name
    identity opened{};
    std::chrono::steady_clock::time_point looked_at{};
    int64_t length = 0;  // of the file
};

// The side file of a database, the same one for all who ask for it. Null: no memory.
std::shared_ptr<side_file> share_side_file(sqlite3_vfs* base, const char* database);

}  // namespace commit_vfs

#endif  // COMMIT_VFS_SIDE_FILE_H
