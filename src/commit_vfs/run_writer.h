// Gathers small writes that follow each other in a file into few large ones.
#ifndef COMMIT_VFS_RUN_WRITER_H
#define COMMIT_VFS_RUN_WRITER_H

#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "page_set.h"

namespace commit_vfs {

class run_writer {
  public:
    // The buffer is lent, so that it is there already at the next run.
    run_writer(sqlite3_file* to, std::vector<char>& buffer) : file(to), run(buffer) {
        run.clear();
        run.reserve(run_cap);
    }

    // At most largest_page bytes. Returns SQLite's code, as flush() does.
    int add(const void* bytes, size_t count, int64_t offset) {
        const bool follows = offset == start + static_cast<int64_t>(run.size());
        if (!run.empty() && (!follows || run.size() + count > run_cap)) {
            const int rc = flush();
            if (rc != SQLITE_OK) return rc;
        }
        if (run.empty()) start = offset;
        const auto* from = static_cast<const char*>(bytes);
        run.insert(run.end(), from, from + count);
        return SQLITE_OK;
    }
    int flush() {
        if (run.empty()) return SQLITE_OK;
        const int rc =
            file->pMethods->xWrite(file, run.data(), static_cast<int>(run.size()), start);
        run.clear();
        return rc;
    }

  private:
    static constexpr size_t run_cap =
        largest_page;  // SQLite's own VFS cannot write 128 KiB at once

    sqlite3_file* const file;
    std::vector<char>& run;
    int64_t start = 0;
};

}  // namespace commit_vfs

#endif  // COMMIT_VFS_RUN_WRITER_H
