// The bytes of one payload, and zb_io, the buffer that callers hold.
#ifndef ZBSERVICE_PAYLOAD_H
#define ZBSERVICE_PAYLOAD_H

#include <cstddef>
#include <cstdint>

namespace zb {

struct connection;

// A growable block that always has a zero byte behind its content. Grows geometrically, so that
// memory follows the bytes that are there and never a length that somebody only announced.
class payload {
  public:
    payload() = default;
    payload(payload&& other) noexcept { swap(other); }
    payload& operator=(payload&& other) noexcept;
    payload(const payload&) = delete;
    payload& operator=(const payload&) = delete;
    ~payload() { clear(); }

    char* data() { return block_ ? block_ : &empty_; }
    std::size_t size() const { return length_; }
    std::size_t capacity() const { return capacity_; }

    // Each returns false, with the content as it was, when out of memory or over max_reply_bytes.
    // A content that will not grow beyond `limit` gets no more memory than for that.
    bool append(const void* data, std::size_t length, std::size_t limit = SIZE_MAX);
    bool assign(const void* data, std::size_t length);
    bool resize(std::size_t length);

    // For receiving in place a content that will have `limit` bytes, of which some are missing:
    // makes room behind what is there and tells how much through `room`. Null: out of memory.
    char* make_room(std::size_t limit, std::size_t& room);
    void extend(std::size_t received);

    // The first bytes are not read again: their pages go back to the system, and read as zero.
    void forget(std::size_t length);

    // Empties it; a block that is worth giving back is given back.
    void reset();
    void clear();
    void swap(payload& other) noexcept;

  private:
    bool reserve(std::size_t length, std::size_t limit = SIZE_MAX);
    bool reallocate(std::size_t capacity);
    void set_length(std::size_t length);

    char* block_ = nullptr;
    std::size_t length_ = 0;
    std::size_t capacity_ = 0;  // bytes of the block, the zero byte included
    char empty_ = '\0';
};

}  // namespace zb

struct zb_io {
    zb::payload content;
    zb::connection* request = nullptr;  // whose request this buffer brought; null for a caller's
};

#endif  // ZBSERVICE_PAYLOAD_H
