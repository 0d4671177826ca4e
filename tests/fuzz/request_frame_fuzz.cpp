// The reader of request frames: whatever the pieces are in which the bytes arrive, it comes to what
// the frame's layout says of them, and holds no more memory than they are worth.
//
// Input: a byte with the size of the pieces, then the bytes that a caller sends.
#include <cstring>

#include "frames.h"
#include "fuzz_target.h"
#include "request_reader.h"

namespace {

using zb::read_state;

// What the bytes are, read from the layout in docs/zbservice.md.
bool is_request(std::string_view bytes) {
    return bytes.starts_with("zbus\1") && (bytes[5] & ~(dated_flag | keep_flag)) == 1;
}

uint64_t body_size_of(std::string_view bytes) {
    const uint64_t length = length_of(bytes);
    return (bytes[5] & dated_flag) != 0 ? length & 0xffffffff : length;
}

read_state judge(std::string_view bytes) {
    if (bytes.size() < header_size) return read_state::incomplete;
    const uint64_t method_size = detail_of(bytes);
    const uint64_t body_size = body_size_of(bytes);
    if (!is_request(bytes) || method_size == 0) {
        return read_state::malformed;
    }
    if (method_size > zb::max_method_bytes || body_size > zb::max_request_bytes) {
        return read_state::too_large;
    }
    const std::string_view behind = bytes.substr(header_size);
    if (behind.size() < method_size) return read_state::incomplete;
    if (behind.substr(0, method_size).find('\0') != behind.npos) return read_state::malformed;
    const size_t body = behind.size() - method_size;
    if (body > body_size) return read_state::malformed;
    return body == body_size ? read_state::complete : read_state::incomplete;
}

void expect_frame(zb::request_reader& reader, std::string_view bytes) {
    const std::string_view method = reader.method();
    const std::string_view body(reader.body().data(), reader.body().size());
    fuzz::expect(bytes.substr(header_size) == std::string(method) + std::string(body),
                 "method and body are the bytes behind the header");
    fuzz::expect(method.size() == detail_of(bytes), "the method has its length");
    fuzz::expect(reader.body().data()[body.size()] == '\0', "a zero byte follows the body");
}

void read_in_pieces(zb::request_reader& reader, std::string_view bytes, size_t piece) {
    for (size_t end = 0; end < bytes.size();) {
        const size_t start = end;
        end = std::min(bytes.size(), start + piece);
        // A block of its own, so that the first byte read past it is seen.
        const std::string part(bytes.substr(start, end - start));
        const read_state state = reader.feed(part.data(), part.size());
        fuzz::expect(state == judge(bytes.substr(0, end)), "the state is that of the bytes");
        fuzz::expect(reader.memory() <= 2 * end + 65, "memory follows the bytes that came");
        if (state == read_state::complete) expect_frame(reader, bytes.substr(0, end));
        if (state != read_state::incomplete) return;
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::input in(data, size);
    const size_t piece = size_t{1} + in.byte();
    const std::string bytes = in.rest();
    zb::request_reader reader;
    read_in_pieces(reader, bytes, piece);
    reader.reset();
    read_in_pieces(reader, bytes, std::max<size_t>(bytes.size(), 1));
    return 0;
}
