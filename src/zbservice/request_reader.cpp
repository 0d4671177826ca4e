// Takes a request frame apart as its bytes arrive.
#include "request_reader.h"

#include <algorithm>
#include <cstring>

namespace zb {

read_state request_reader::feed(const char* data, std::size_t length) {
    if (block_taken_ < header_bytes) {
        if (!take(block_.data(), header_bytes, block_taken_, data, length))
            return read_state::incomplete;
        if (const auto state = check_header(); state != read_state::complete) return state;
    }
    if (method_taken_ < header_.detail) {
        if (!take(method_.data(), header_.detail, method_taken_, data, length))
            return read_state::incomplete;
        if (const auto state = check_method(); state != read_state::complete) return state;
    }
    // The next request comes after the reply, if at all: what follows has no meaning.
    if (length > header_.length - body_.size()) return read_state::malformed;
    if (!body_.append(data, length, header_.length)) return read_state::out_of_memory;
    return body_.size() == header_.length ? read_state::complete : read_state::incomplete;
}

void request_reader::reset() {
    block_taken_ = 0;
    header_ = {frame_kind::request, 0, 0};
    method_taken_ = 0;
    body_.clear();
}

// Moves bytes into a part of `whole` bytes; tells whether it is full.
bool request_reader::take(char* target, std::size_t whole, std::size_t& taken, const char*& data,
                          std::size_t& length) {
    const std::size_t step = std::min(whole - taken, length);
    std::memcpy(target + taken, data, step);
    taken += step;
    data += step;
    length -= step;
    return taken == whole;
}

read_state request_reader::check_header() {
    if (!decode_header(block_, frame_kind::request, header_) || header_.detail == 0)
        return read_state::malformed;
    if (header_.detail > max_method_bytes || header_.length > max_request_bytes)
        return read_state::too_large;
    return read_state::complete;
}

// A zero byte inside a name would make it pass for another one.
read_state request_reader::check_method() {
    if (std::memchr(method_.data(), '\0', header_.detail)) return read_state::malformed;
    method_[header_.detail] = '\0';
    return read_state::complete;
}

}  // namespace zb
