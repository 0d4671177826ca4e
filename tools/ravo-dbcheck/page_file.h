// A database file read as bare pages, past SQLite, which gives up at the first fault that it meets.
// Nothing of the file is believed: every number is held against the file before it is followed.
//
//   page         pages are numbered from 1 and have one size; page 1 begins with a header of 100
//                bytes, which is needed only for that size
//   table leaf   0D, then at 3 the count of cells (2 bytes); from 8 on a 2-byte place for each cell
//   cell         size of the payload, id (varints), payload; what does not fit goes on in overflow
//                pages, the first of which is named behind the local part (4 bytes)
//   overflow     number of the next page, 0 in the last one; the rest is payload
//   table inner  05; at 8 the rightmost child; cells from 12 on are a child (4 bytes) and an id
//
//   page map     page 2, and one behind every so many pages: for each of them a kind and the number
//   of
//                the page that refers to it (1 and 4 bytes)
//
// The file may be longer than its header says. A transaction that was shrinking it was cut then: it
// writes upwards, page 1 with the new size first, and moves pages from the end into places that are
// free; the end goes last. So the pages of the end are as they were before, and a place below may
// already hold what belongs to somebody else. The page map, which comes early, has the new owners.
//
// Numbers are big-endian. A varint has 7 bits a byte, the highest first, and goes on while a byte's
// top bit is set; a ninth byte counts with 8 bits.
#ifndef DBCHECK_PAGE_FILE_H
#define DBCHECK_PAGE_FILE_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <unordered_set>
#include <vector>

#include "deadline.h"

using byte_view = std::span<const uint8_t>;

// Takes a varint off the front. Nothing: it goes on behind the end.
std::optional<uint64_t> take_varint(byte_view& from);

enum class page_kind { table_leaf, table_inner, other };

struct row_cell {
    uint32_t page;
    int64_t id;
    uint64_t payload_size;
    byte_view local;          // of the payload
    uint32_t first_overflow;  // 0: all of it is local
};

class page_file {
  public:
    // fd stays the caller's. Looks at all pages before it knows what they are, until the end.
    page_file(int fd, deadline end);

    uint32_t page_count() const { return count; }
    size_t page_size() const { return size; }
    // The last page that is the database's by its header; behind it is the end of a file that was
    // to shrink.
    uint32_t last_stated_page() const { return stated; }

    // False: there is no such page, or it cannot be read. What a last page lacks is zero.
    bool read(uint32_t number, std::vector<uint8_t>& page) const;

    // The kind as its head says, when the places of its cells fit into the page.
    page_kind kind_of(uint32_t number, byte_view page) const;
    size_t cell_count(uint32_t number, byte_view page) const;
    // Nothing: there is no whole cell at the place.
    std::optional<row_cell> leaf_cell(uint32_t number, byte_view page, size_t n) const;
    // An inner page has one child more than cells. 0: none.
    uint32_t child(uint32_t number, byte_view page, size_t n) const;

    // Fills whole with all of a cell's payload. False: a page of it is missing, or in no chain that
    // can hold it.
    bool read_payload(const row_cell& cell, std::vector<uint8_t>& whole) const;

  private:
    uint64_t count_tree_pages() const;
    bool is_whole_tree_page(uint32_t number, byte_view page) const;
    void use_page_size(size_t bytes_of_page);
    size_t local_size(uint64_t payload_size) const;
    bool append_overflow(const row_cell& cell, std::vector<uint8_t>& whole) const;
    void read_header();
    bool was_moved_in(uint32_t number, byte_view page, uint32_t owner) const;
    uint32_t mapped_owner(uint32_t number) const;

    int fd;
    deadline end;
    uint64_t file_bytes = 0;
    size_t size = 0;
    uint32_t count = 0;
    uint32_t stated = 0;
    bool has_page_map = false;
    std::unordered_set<size_t> moved;  // hashes of what the pages behind the stated end hold
};

#endif  // DBCHECK_PAGE_FILE_H
