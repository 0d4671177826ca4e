// The bytes of one payload, and zb_io, the buffer that callers hold.
#ifndef ZBSERVICE_PAYLOAD_H
#define ZBSERVICE_PAYLOAD_H

#include <cstddef>
#include <cstdint>

#include "zbservice.h"

namespace zb {

struct connection;

// Where a reply's bytes behind the first `head` go: see zb_call_into().
struct reply_place {
    std::size_t head;
    zb_place_fn place;
    void* arg;
};

using release_fn = void (*)(void* block);

// A growable block that always has a zero byte behind its content, and perhaps a block of somebody
// else's making attached to it.
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

    // For receiving in place: takes room for a content of so many bytes, for which the system gives
    // memory only as they come. False: out of memory. Then, how much of it is missing and where.
    bool expect(std::size_t length);
    char* end() { return block_ + length_; }
    std::size_t room() const { return capacity_ - 1 - length_; }
    void extend(std::size_t received);

    // Takes over a block, whose bytes follow the content from then on, and which is released once.
    // Such a payload is sent or emptied: it grows no more. False, with nothing taken: there is one
    // already, or the whole would be over max_reply_bytes.
    bool attach(void* block, std::size_t length, release_fn release);
    char* attached() { return attached_; }
    std::size_t attached_size() const { return attached_length_; }
    std::size_t whole_size() const { return length_ + attached_length_; }

    // The bytes of the whole from `from` to `to`, which follow those that were told of before, are
    // not read again: their pages go back to the system.
    void forget(std::size_t from, std::size_t to);

    // Of the call that this payload is the request of; null: the whole reply comes here.
    const reply_place* place_of_reply = nullptr;

    // Empties it; a block that is worth giving back is given back.
    void reset();
    void clear();
    void swap(payload& other) noexcept;

  private:
    void release_attached();
    bool reserve(std::size_t length, std::size_t limit = SIZE_MAX);
    bool reallocate(std::size_t capacity);
    void set_length(std::size_t length);

    char* block_ = nullptr;
    std::size_t length_ = 0;
    std::size_t capacity_ = 0;  // bytes of the block, the zero byte included
    char* attached_ = nullptr;
    std::size_t attached_length_ = 0;
    release_fn release_ = nullptr;  // of the attached block
    char empty_ = '\0';
};

}  // namespace zb

struct zb_io {
    zb::payload content;
    zb::connection* request = nullptr;  // whose request this buffer brought; null for a caller's
};

#endif  // ZBSERVICE_PAYLOAD_H
