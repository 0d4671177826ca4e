// The frames of the bus: a fixed header, then a request's method and payload or a reply's payload.
//
//   offset  bytes  content (numbers little-endian)
//        0      4  "zbus"
//        4      1  version, 1
//        5      1  kind: 1 request, 2 reply; and 0x10 dated, 0x20 keep
//        6      2  request: length of the method; reply: status
//        8      8  length of the payload; of a dated request 4 bytes, and 4 with its date
//
// A connection carries one request and one reply, each a single frame, and then, if both frames say
// "keep", the next ones.
#ifndef ZBSERVICE_FRAME_H
#define ZBSERVICE_FRAME_H

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace zb {

inline constexpr std::size_t header_bytes = 16;
using header_block = std::array<char, header_bytes>;

enum class frame_kind : std::uint8_t { request = 1, reply = 2 };

// What a reply frame says. All but `replied` come without a payload.
enum class reply_status : std::uint16_t {
    replied = 0,
    no_reply = 1,   // the request was not answered
    refused = 2,    // the caller is not permitted
    too_large = 3,  // the request, or its method, is over a bound
    busy = 4,       // the endpoint gave this caller up
    malformed = 5,  // not a request frame of this version
    not_run = 6,    // came as the kept connection ended: to be sent again on another one
};

struct frame_header {
    frame_kind kind;
    std::uint16_t detail;  // request: length of the method; reply: a reply_status
    std::uint64_t length;  // of the payload
    bool keep = false;     // request: the caller would keep the connection; reply: it is kept
    bool dated = false;    // only a request
    std::uint32_t date = 0;
};

// A request's date is when it was sent: the low bits of the monotonic clock's microseconds.
using monotonic = std::chrono::steady_clock;
std::uint32_t date_of(monotonic::time_point time);

// The time that a date means, at most half of its range before `now`. One that lies after it cannot
// be true: then it is `now`.
monotonic::time_point time_of(std::uint32_t date, monotonic::time_point now);

header_block encode_header(const frame_header& header);

// Returns false when the block is not a header of this version and kind.
bool decode_header(const header_block& block, frame_kind kind, frame_header& header);

}  // namespace zb

#endif  // ZBSERVICE_FRAME_H
