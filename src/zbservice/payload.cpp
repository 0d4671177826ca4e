// The bytes of one payload.
#include "payload.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "bounds.h"
#include "large_pages.h"

namespace zb {
namespace {
constexpr std::size_t smallest_block = 64;
constexpr std::size_t kept_block = 64 * kib;  // a larger one goes back when the payload is emptied

// Gives back the pages of a block's bytes from `from` to `to`. A large page goes as a whole, with
// the bytes that come to its end, and the block's first page, which is shared, never.
void give_back_pages(char* block, std::size_t from, std::size_t to) {
    const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    const auto start = reinterpret_cast<std::uintptr_t>(block);
    const std::uintptr_t own = (start + page - 1) / page * page;
    const std::uintptr_t first = std::max((start + from) / large_page * large_page, own);
    const std::uintptr_t last = (start + to) / large_page * large_page;
    if (first < last) (void)madvise(block + (first - start), last - first, MADV_DONTNEED);
}
}  // namespace

payload& payload::operator=(payload&& other) noexcept {
    clear();
    swap(other);
    return *this;
}

bool payload::append(const void* data, std::size_t length, std::size_t limit) {
    if (attached_ || length > max_reply_bytes - length_ || !reserve(length_ + length, limit))
        return false;
    if (length > 0) std::memcpy(block_ + length_, data, length);
    set_length(length_ + length);
    return true;
}

bool payload::assign(const void* data, std::size_t length) {
    if (length > max_reply_bytes || !reserve(length)) return false;
    if (length > 0) std::memcpy(block_, data, length);
    set_length(length);
    return true;
}

bool payload::resize(std::size_t length) {
    if (length == 0) {
        reset();
        return true;
    }
    if (attached_ || length > max_reply_bytes || !reserve(length)) return false;
    if (length > length_) std::memset(block_ + length_, 0, length - length_);
    set_length(length);
    return true;
}

bool payload::expect(std::size_t length) {
    if (!reallocate(length + 1)) return false;
    use_large_pages(block_, capacity_);
    return true;
}

void payload::extend(std::size_t received) { set_length(length_ + received); }

bool payload::attach(void* block, std::size_t length, release_fn release) {
    if (attached_ || length > max_reply_bytes - length_) return false;
    attached_ = static_cast<char*>(block);
    attached_length_ = length;
    release_ = release;
    if (length == 0) release_attached();
    return true;
}

void payload::forget(std::size_t from, std::size_t to) {
    if (from < length_) give_back_pages(block_, from, std::min(to, length_));
    if (to > length_) give_back_pages(attached_, std::max(from, length_) - length_, to - length_);
}

void payload::reset() {
    if (capacity_ > kept_block || attached_) {
        clear();
    } else if (block_) {
        set_length(0);
    }
}

void payload::clear() {
    std::free(std::exchange(block_, nullptr));
    length_ = 0;
    capacity_ = 0;
    release_attached();
}

void payload::release_attached() {
    if (attached_) release_(std::exchange(attached_, nullptr));
    attached_length_ = 0;
}

void payload::swap(payload& other) noexcept {
    std::swap(block_, other.block_);
    std::swap(length_, other.length_);
    std::swap(capacity_, other.capacity_);
    std::swap(attached_, other.attached_);
    std::swap(attached_length_, other.attached_length_);
    std::swap(release_, other.release_);
}

bool payload::reserve(std::size_t length, std::size_t limit) {
    if (length < capacity_) return true;
    const std::size_t exact = length + 1;
    const std::size_t grown = std::max(2 * capacity_, smallest_block);
    const std::size_t most = std::max(limit, limit + 1);  // no limit stays none
    return reallocate(std::max(exact, std::min(grown, most))) || reallocate(exact);
}

bool payload::reallocate(std::size_t capacity) {
    void* grown = std::realloc(block_, capacity);
    if (!grown) return false;
    block_ = static_cast<char*>(grown);
    capacity_ = capacity;
    return true;
}

void payload::set_length(std::size_t length) {
    length_ = length;
    block_[length] = '\0';
}

}  // namespace zb
