// The record of one commit: its checksum and its reader.
#include "record.h"

#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <new>

#include "page_set.h"

namespace commit_vfs {
namespace {

constexpr int read_step = largest_page;

void mix(uint64_t& lane, const char* bytes) {
    uint64_t word = 0;
    memcpy(&word, bytes, sizeof word);
    lane = (lane ^ word) * 0xFF51AFD7ED558CCD;
    lane ^= lane >> 32;
}

bool is_plausible(const record_header& header) {
    return memcmp(header.magic, record_magic, sizeof record_magic) == 0 &&
           header.version == record_version && is_page_size(header.page_size) &&
           header.page_count > 0 && header.old_size >= 0 && header.new_size >= 0;
}

// Whether the table is in order from a row on: each page once, ascending.
bool is_ordered(const std::vector<record_page>& pages, size_t from) {
    int64_t next = from == 0 ? 0 : int64_t{pages[from - 1].number} + 1;
    for (size_t n = from; n < pages.size(); ++n) {
        if (pages[n].number < next) return false;
        if (pages[n].kind != page_kind::data && pages[n].kind != page_kind::zeros) return false;
        next = int64_t{pages[n].number} + 1;
    }
    return true;
}

// Whether the table fits the header: inside the database, which may be cut off in its last page and
// grows by what is written only. A first commit writes the first page.
bool is_plausible(const record_header& header, const std::vector<record_page>& pages) {
    const int64_t end = (int64_t{pages.back().number} + 1) * header.page_size;
    return end - header.page_size < std::max(header.new_size, header.old_size) &&
           header.new_size <= std::max(header.old_size, end) &&
           (header.old_size > 0 || pages[0].number == 0);
}

// Fills in where the data stands. Returns the end of the record.
int64_t place_data(record& r) {
    auto offset = static_cast<int64_t>(sizeof r.header + r.pages.size() * sizeof(record_page));
    r.data_offsets.clear();
    r.data_offsets.reserve(r.pages.size());
    for (const record_page& page : r.pages) {
        r.data_offsets.push_back(offset);
        if (page.kind == page_kind::data) offset += r.header.page_size;
    }
    return offset;
}

int add_range(byte_source& from, record_checksum& sum, int64_t offset, int64_t end) {
    const auto buffer = std::make_unique<char[]>(read_step);
    while (offset < end) {
        const auto count = static_cast<int>(std::min<int64_t>(end - offset, read_step));
        const int rc = from.read(buffer.get(), count, offset);
        if (rc != SQLITE_OK) return rc;
        sum.add(buffer.get(), static_cast<size_t>(count));
        offset += count;
    }
    return SQLITE_OK;
}

// Reads the table in steps, each checked before the next, so that a count that nothing stands
// behind asks for no memory. Leaves no pages when the table is none.
int read_table(byte_source& from, uint32_t count, std::vector<record_page>& pages) {
    constexpr size_t step = read_step / sizeof(record_page);
    pages.clear();
    while (pages.size() < count) {
        const size_t done = pages.size();
        pages.resize(std::min<size_t>(count, done + step));
        const auto bytes = static_cast<int>((pages.size() - done) * sizeof(record_page));
        const int rc =
            from.read(&pages[done], bytes,
                      static_cast<int64_t>(sizeof(record_header) + done * sizeof(record_page)));
        if (rc != SQLITE_OK) return rc;
        if (!is_ordered(pages, done)) {
            pages.clear();
            break;
        }
    }
    return SQLITE_OK;
}

int read_checked(byte_source& from, int64_t size, record& out, bool& is_whole) {
    int rc = from.read(&out.header, sizeof out.header, 0);
    if (rc != SQLITE_OK || !is_plausible(out.header)) return rc;
    const int64_t table_bytes = int64_t{out.header.page_count} * int64_t{sizeof(record_page)};
    if (table_bytes > size - int64_t{sizeof out.header}) return SQLITE_OK;

    rc = read_table(from, out.header.page_count, out.pages);
    if (rc != SQLITE_OK || out.pages.empty()) return rc;
    if (!is_plausible(out.header, out.pages)) return SQLITE_OK;
    const int64_t data_start = int64_t{sizeof out.header} + table_bytes;
    const int64_t end = place_data(out);
    if (end > size) return SQLITE_OK;

    record_checksum sum;
    record_header summed = out.header;
    summed.checksum = 0;
    sum.add(&summed, sizeof summed);
    sum.add(out.pages.data(), static_cast<size_t>(table_bytes));
    rc = add_range(from, sum, data_start, end);
    is_whole = rc == SQLITE_OK && sum.value() == out.header.checksum;
    return rc;
}

}  // namespace

// The words go to the lanes in turn, which the processor works on side by side. Each step is
// reversible, so two records that differ in one word never have the same sum.
void record_checksum::add(const void* bytes, size_t count) {
    constexpr size_t word_size = sizeof(uint64_t);
    constexpr size_t round_size = lane_count * word_size;
    const auto* at = static_cast<const char*>(bytes);
    const char* const end = at + count;
    for (; at < end && words % lane_count != 0; at += word_size) {
        mix(lanes[words++ % lane_count], at);
    }
    std::array<uint64_t, lane_count> fast = lanes;
    for (; static_cast<size_t>(end - at) >= round_size; at += round_size) {
        for (size_t n = 0; n < lane_count; ++n) mix(fast[n], at + n * word_size);
        words += lane_count;
    }
    lanes = fast;
    for (; at < end; at += word_size) mix(lanes[words++ % lane_count], at);
}

uint64_t record_checksum::value() const {
    uint64_t mixed = words;
    for (const uint64_t lane : lanes) {
        mixed = (mixed ^ lane) * 0xC4CEB9FE1A85EC53;
        mixed ^= mixed >> 33;
    }
    return mixed;
}

int read_record(byte_source& from, record& out, bool& is_whole) {
    is_whole = false;
    int64_t size = 0;
    const int rc = from.size(size);
    if (rc != SQLITE_OK || size < int64_t{sizeof out.header}) return rc;
    try {
        return read_checked(from, size, out, is_whole);
    } catch (const std::bad_alloc&) {
        return SQLITE_IOERR_NOMEM;
    }
}

}  // namespace commit_vfs
