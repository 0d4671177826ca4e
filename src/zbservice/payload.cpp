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

namespace zb {
namespace {
constexpr std::size_t smallest_block = 64;
constexpr std::size_t kept_block = 64 * kib;  // a larger one goes back when the payload is emptied
}  // namespace

payload& payload::operator=(payload&& other) noexcept {
    clear();
    swap(other);
    return *this;
}

bool payload::append(const void* data, std::size_t length, std::size_t limit) {
    if (length > max_reply_bytes - length_ || !reserve(length_ + length, limit)) return false;
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
    if (length > max_reply_bytes || !reserve(length)) return false;
    if (length > length_) std::memset(block_ + length_, 0, length - length_);
    set_length(length);
    return true;
}

char* payload::make_room(std::size_t limit, std::size_t& room) {
    if (length_ + 1 >= capacity_) {
        const std::size_t grown = std::max(2 * capacity_, smallest_block);
        if (!reallocate(std::min(grown, limit + 1))) return nullptr;
    }
    room = std::min(capacity_ - 1, limit) - length_;
    return block_ + length_;
}

void payload::extend(std::size_t received) { set_length(length_ + received); }

void payload::forget(std::size_t length) {
    const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    const auto start = reinterpret_cast<std::uintptr_t>(block_);
    const std::uintptr_t lead = (page - start % page) % page;  // its page is shared
    if (length <= lead) return;
    (void)madvise(block_ + lead, (length - lead) / page * page, MADV_DONTNEED);
}

void payload::reset() {
    if (capacity_ > kept_block) {
        clear();
    } else if (block_) {
        set_length(0);
    }
}

void payload::clear() {
    std::free(std::exchange(block_, nullptr));
    length_ = 0;
    capacity_ = 0;
}

void payload::swap(payload& other) noexcept {
    std::swap(block_, other.block_);
    std::swap(length_, other.length_);
    std::swap(capacity_, other.capacity_);
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
