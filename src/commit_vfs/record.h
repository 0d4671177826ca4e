// The record of one commit, as it stands in the side file: a header, a table of pages, and the
// pages. The reader believes nothing that it has not checked.
#ifndef COMMIT_VFS_RECORD_H
#define COMMIT_VFS_RECORD_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace commit_vfs {

inline constexpr char record_magic[8] = {'R', 'A', 'V', 'O', 'C', 'M', 'T', '\n'};
inline constexpr uint32_t record_version = 1;
inline constexpr int sector_size = 512;  // bytes that are written whole or not at all

// The extension was complete before an existing byte was touched.
inline constexpr uint32_t record_in_order = 1;

struct record_header {
    char magic[8];
    uint32_t version;
    uint32_t page_size;
    uint32_t page_count;
    uint32_t flags;
    int64_t old_size;  // bytes of the database before and after
    int64_t new_size;
    uint64_t inode;                  // of the database
    uint64_t checksum;               // of the whole record, this field taken as 0
    char first_sector[sector_size];  // of the database, before
};
static_assert(sizeof(record_header) == 568);

enum class page_kind : uint32_t { data = 0, zeros = 1 };

struct record_page {
    uint32_t number;  // from 0
    page_kind kind;
};
static_assert(sizeof(record_page) == 8);

// --- Checksum -----------------------------------------------------------------------------------

// Takes bytes in pieces; each is a multiple of 8 long.
class record_checksum {
  public:
    void add(const void* bytes, size_t count);
    uint64_t value() const;

  private:
    static constexpr size_t lane_count = 4;

    std::array<uint64_t, lane_count> lanes{0x9E3779B97F4A7C15, 0xBF58476D1CE4E5B9,
                                           0x94D049BB133111EB, 0xD6E8FEB86659FD93};
    uint64_t words = 0;
};

// --- Reading ------------------------------------------------------------------------------------

// Where a record is read from. Both return SQLite's code.
class byte_source {
  public:
    virtual ~byte_source() = default;
    virtual int size(int64_t& bytes) = 0;
    // All of the bytes, or a failure.
    virtual int read(void* to, int count, int64_t offset) = 0;
};

struct record {
    record_header header;
    std::vector<record_page> pages;
    std::vector<int64_t> data_offsets;  // where each page's data stands, if it has any
};

// Reads the header, the table and, for the checksum, the pages. Sets is_whole to whether there is a
// complete record. Returns SQLite's code; a record that is none is no failure.
int read_record(byte_source& from, record& out, bool& is_whole);

}  // namespace commit_vfs

#endif  // COMMIT_VFS_RECORD_H
