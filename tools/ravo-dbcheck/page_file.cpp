// A database file read as bare pages.
#include "page_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <functional>
#include <string_view>

namespace {

constexpr size_t usual_page_size = 2048;  // of every file that the store makes
constexpr size_t smallest_page = 512;
constexpr size_t largest_page = 65536;
constexpr size_t file_header_size = 100;
constexpr size_t page_size_place = 16;
constexpr size_t leaf_head_size = 8;
constexpr size_t inner_head_size = 12;
constexpr size_t count_place = 3;
constexpr size_t right_child_place = 8;
constexpr size_t page_count_place = 28;
constexpr size_t map_flag_place = 52;
constexpr size_t map_entry_size = 5;
constexpr size_t lock_place = 0x40000000;  // the page that holds this byte is never used
constexpr uint8_t leaf_mark = 0x0d;
constexpr uint8_t inner_mark = 0x05;
constexpr uint64_t largest_payload = uint64_t{1024} * 1024;  // far above any row of the store

uint64_t big_endian(byte_view from) {
    uint64_t number = 0;
    for (const uint8_t byte : from) number = number << 8 | byte;
    return number;
}
uint32_t number16(byte_view page, size_t at) {
    return static_cast<uint32_t>(big_endian(page.subspan(at, 2)));
}
uint32_t number32(byte_view page, size_t at) {
    return static_cast<uint32_t>(big_endian(page.subspan(at, 4)));
}

// Where a page's own head begins.
size_t head_of(uint32_t number) { return number == 1 ? file_header_size : 0; }

size_t head_size(page_kind kind) {
    return kind == page_kind::table_leaf ? leaf_head_size : inner_head_size;
}

// Where the n-th cell begins; kind_of has seen that its place is in the page.
size_t cell_place(uint32_t number, byte_view page, page_kind kind, size_t n) {
    return number16(page, head_of(number) + head_size(kind) + 2 * n);
}

// The size that the header states; 0: none that can be.
size_t stated_page_size(int fd) {
    uint8_t field[2] = {};
    if (pread(fd, field, sizeof field, page_size_place) != sizeof field) return 0;
    const size_t stated = big_endian(field);
    const size_t size = stated == 1 ? largest_page : stated;
    return std::has_single_bit(size) && size >= smallest_page ? size : 0;
}

// Of an overflow page without the number of the next one, which changes when that is moved.
size_t content_hash(byte_view page) {
    const byte_view content = page.subspan(4);
    return std::hash<std::string_view>()(
        {reinterpret_cast<const char*>(content.data()), content.size()});
}

}  // namespace

std::optional<uint64_t> take_varint(byte_view& from) {
    uint64_t value = 0;
    for (size_t n = 0; n < from.size() && n < 9; ++n) {
        if (n == 8) {
            value = value << 8 | from[n];
        } else {
            value = value << 7 | (from[n] & 0x7fU);
        }
        if (n == 8 || (from[n] & 0x80U) == 0) {
            from = from.subspan(n + 1);
            return value;
        }
    }
    return {};
}

// The header may be what is damaged. Of its page size and the usual one that is taken with which
// more pages make sense.
page_file::page_file(int opened, deadline time) : fd(opened), end(time) {
    struct stat status = {};
    if (fstat(fd, &status) == 0) file_bytes = static_cast<uint64_t>(status.st_size);
    use_page_size(usual_page_size);
    const size_t stated_size = stated_page_size(fd);
    if (stated_size != 0 && stated_size != usual_page_size) {
        const uint64_t usual_score = count_tree_pages();
        use_page_size(stated_size);
        if (count_tree_pages() < usual_score) use_page_size(usual_page_size);
    }
    read_header();
}

void page_file::read_header() {
    std::vector<uint8_t> page;
    stated = count;
    if (!read(1, page)) return;
    const uint32_t number = number32(page, page_count_place);
    if (number > 0 && number < count) stated = number;
    has_page_map = number32(page, map_flag_place) != 0;
    for (uint32_t behind = stated + 1; behind <= count && behind != 0 && !end.has_passed();
         ++behind) {
        if (read(behind, page)) moved.insert(content_hash(page));
    }
}

void page_file::use_page_size(size_t bytes_of_page) {
    size = bytes_of_page;
    count = static_cast<uint32_t>(std::min<uint64_t>((file_bytes + size - 1) / size, UINT32_MAX));
}

uint64_t page_file::count_tree_pages() const {
    std::vector<uint8_t> page;
    uint64_t found = 0;
    for (uint32_t number = 1; number <= count && number != 0 && !end.has_passed(); ++number) {
        if (read(number, page) && is_whole_tree_page(number, page)) ++found;
    }
    return found;
}

// Whether a page has cells, and all of them begin in it. With a wrong size they do not.
bool page_file::is_whole_tree_page(uint32_t number, byte_view page) const {
    const page_kind kind = kind_of(number, page);
    const size_t cells = cell_count(number, page);
    if (kind == page_kind::other || cells == 0) return false;
    for (size_t n = 0; n < cells; ++n) {
        if (cell_place(number, page, kind, n) >= size) return false;
    }
    return true;
}

bool page_file::read(uint32_t number, std::vector<uint8_t>& page) const {
    if (number == 0 || number > count) return false;
    page.assign(size, 0);
    const auto start = static_cast<off_t>((number - 1) * uint64_t{size});
    return pread(fd, page.data(), size, start) > 0;
}

page_kind page_file::kind_of(uint32_t number, byte_view page) const {
    const size_t head = head_of(number);
    const uint8_t mark = page[head];
    if (mark != leaf_mark && mark != inner_mark) return page_kind::other;
    const page_kind kind = mark == leaf_mark ? page_kind::table_leaf : page_kind::table_inner;
    const size_t cells_end = head + head_size(kind) + 2 * cell_count(number, page);
    return cells_end <= size ? kind : page_kind::other;
}

size_t page_file::cell_count(uint32_t number, byte_view page) const {
    return number16(page, head_of(number) + count_place);
}

// How much of a payload stands in the leaf.
size_t page_file::local_size(uint64_t payload_size) const {
    const size_t most = size - 35;
    const size_t least = (size - 12) * 32 / 255 - 23;
    if (payload_size <= most) return payload_size;
    const size_t wanted = least + (payload_size - least) % (size - 4);
    return wanted <= most ? wanted : least;
}

std::optional<row_cell> page_file::leaf_cell(uint32_t number, byte_view page, size_t n) const {
    const size_t place = cell_place(number, page, page_kind::table_leaf, n);
    if (place >= page.size()) return {};
    byte_view rest = page.subspan(place);
    const std::optional<uint64_t> payload_size = take_varint(rest);
    if (!payload_size || *payload_size > largest_payload) return {};
    const std::optional<uint64_t> id = take_varint(rest);
    const size_t local = local_size(*payload_size);
    const bool goes_on = local < *payload_size;
    if (!id || rest.size() < local + (goes_on ? 4 : 0)) return {};
    return row_cell{number, static_cast<int64_t>(*id), *payload_size, rest.first(local),
                    goes_on ? number32(rest, local) : 0};
}

uint32_t page_file::child(uint32_t number, byte_view page, size_t n) const {
    if (n == cell_count(number, page)) return number32(page, head_of(number) + right_child_place);
    const size_t place = cell_place(number, page, page_kind::table_inner, n);
    return place + 4 <= page.size() ? number32(page, place) : 0;
}

bool page_file::read_payload(const row_cell& cell, std::vector<uint8_t>& whole) const {
    whole.assign(cell.local.begin(), cell.local.end());
    return whole.size() == cell.payload_size || append_overflow(cell, whole);
}

// The page that refers to this one; 0 when the page map does not say.
uint32_t page_file::mapped_owner(uint32_t number) const {
    const auto group = static_cast<uint32_t>(size / map_entry_size + 1);
    uint32_t map = (number - 2) / group * group + 2;
    if (map == lock_place / size + 1) ++map;
    std::vector<uint8_t> page;
    if (!has_page_map || number <= map || !read(map, page)) return 0;
    return number32(page, map_entry_size * (number - map - 1) + 1);
}

// Whether an overflow page has been overwritten with one of another row, which is still behind the
// stated end as well. Its map alone says too much: it may be ahead of an owner that is to change.
bool page_file::was_moved_in(uint32_t number, byte_view page, uint32_t owner) const {
    return number > 2 && number <= stated && moved.contains(content_hash(page)) &&
           mapped_owner(number) != owner;
}

// A page of zeros is one that was never written, or one that was freed: no payload ends in a whole
// page of them. A chain ends with its payload, neither earlier nor later.
bool page_file::append_overflow(const row_cell& cell, std::vector<uint8_t>& whole) const {
    std::vector<uint8_t> page;
    uint32_t owner = cell.page;
    uint32_t number = cell.first_overflow;
    while (whole.size() < cell.payload_size) {
        if (!read(number, page) || was_moved_in(number, page, owner)) return false;
        if (std::ranges::all_of(page, [](uint8_t byte) { return byte == 0; })) return false;
        const size_t part = std::min<size_t>(cell.payload_size - whole.size(), size - 4);
        whole.insert(whole.end(), page.begin() + 4, page.begin() + 4 + static_cast<long>(part));
        owner = number;
        number = number32(page, 0);
    }
    return number == 0;
}
