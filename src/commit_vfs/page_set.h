// Pages of a database, held in memory: what a transaction has written so far.
#ifndef COMMIT_VFS_PAGE_SET_H
#define COMMIT_VFS_PAGE_SET_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>

namespace commit_vfs {

inline constexpr int largest_page = 65536;
inline constexpr int smallest_page = 512;
inline constexpr size_t held_bytes_cap = size_t{256} << 20;  // of all pages that are not zeros

// Whether SQLite has pages of this size.
constexpr bool is_page_size(int64_t size) {
    return size >= smallest_page && size <= largest_page && (size & (size - 1)) == 0;
}

class page_set {
  public:
    // By the page's number, from 0; null stands for a page of zeros.
    using page_map = std::map<uint32_t, std::unique_ptr<char[]>>;

    bool is_empty() const { return held.empty(); }
    int page_size() const { return bytes_per_page; }
    const page_map& pages() const { return held; }

    // Holds a copy of a page, in place of an earlier one. All pages of a set have one size, and
    // stand at a multiple of it. Returns SQLite's code: SQLITE_FULL at the cap.
    int put(const void* bytes, int size, int64_t offset);
    // Forgets the pages from an offset on.
    void drop_from(int64_t offset);
    void clear();
    // Lays what is held over bytes that were read from the same place of the file.
    void lay_over(char* bytes, int count, int64_t offset) const;

  private:
    void forget(const char* bytes);

    page_map held;
    int bytes_per_page = 0;
    size_t held_bytes = 0;
};

}  // namespace commit_vfs

#endif  // COMMIT_VFS_PAGE_SET_H
