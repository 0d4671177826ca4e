// Pages of a database, held in memory.
#include "page_set.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstring>
#include <new>

namespace commit_vfs {
namespace {

bool is_zeros(const char* bytes, int size) {
    return bytes[0] == 0 && memcmp(bytes, bytes + 1, static_cast<size_t>(size) - 1) == 0;
}

}  // namespace

int page_set::put(const void* bytes, int size, int64_t offset) {
    if (held.empty()) bytes_per_page = size;
    if (!is_page_size(size) || size != bytes_per_page || offset % size != 0) {
        return SQLITE_IOERR_WRITE;
    }
    const int64_t number = offset / size;
    if (number < 0 || number > UINT32_MAX) return SQLITE_FULL;
    const auto* from = static_cast<const char*>(bytes);
    const auto length = static_cast<size_t>(size);
    try {
        auto& place = held[static_cast<uint32_t>(number)];
        if (is_zeros(from, size)) {
            forget(place.get());
            place.reset();
            return SQLITE_OK;
        }
        if (!place) {
            if (held_bytes + length > held_bytes_cap) return SQLITE_FULL;
            place = std::make_unique_for_overwrite<char[]>(length);
            held_bytes += length;
        }
        memcpy(place.get(), from, length);
    } catch (const std::bad_alloc&) {
        return SQLITE_IOERR_NOMEM;
    }
    return SQLITE_OK;
}

void page_set::drop_from(int64_t offset) {
    if (held.empty()) return;
    const int64_t first = (offset + bytes_per_page - 1) / bytes_per_page;
    if (first > UINT32_MAX) return;
    for (auto at = held.lower_bound(static_cast<uint32_t>(first)); at != held.end();) {
        forget(at->second.get());
        at = held.erase(at);
    }
}

void page_set::clear() {
    held.clear();
    held_bytes = 0;
}

void page_set::lay_over(char* bytes, int count, int64_t offset) const {
    if (held.empty()) return;
    const int64_t end = offset + count;
    auto at = held.lower_bound(static_cast<uint32_t>(offset / bytes_per_page));
    for (; at != held.end(); ++at) {
        const int64_t page_start = int64_t{at->first} * bytes_per_page;
        if (page_start >= end) break;
        const int64_t from = std::max(offset, page_start);
        const auto length = static_cast<size_t>(std::min(end, page_start + bytes_per_page) - from);
        char* to = bytes + (from - offset);
        if (at->second) {
            memcpy(to, at->second.get() + (from - page_start), length);
        } else {
            memset(to, 0, length);
        }
    }
}

void page_set::forget(const char* bytes) {
    if (bytes != nullptr) held_bytes -= static_cast<size_t>(bytes_per_page);
}

}  // namespace commit_vfs
