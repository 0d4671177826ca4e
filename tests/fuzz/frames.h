// The frames' layout as docs/zbservice.md has it, apart from the code that is held against it.
#ifndef TESTS_FUZZ_FRAMES_H
#define TESTS_FUZZ_FRAMES_H

#include <cstddef>
#include <cstdint>
#include <string_view>

inline constexpr size_t header_size = 16;

// A header: "zbus" and the version; the kind; then two bytes of detail and eight of length.
inline bool is_header(std::string_view bytes, char kind) {
    return bytes.starts_with("zbus\1") && bytes[5] == kind;
}

// Parts of the kind: a request that says when it was sent, in the upper half of its length, and a
// frame after which the connection is kept.
inline constexpr char dated_flag = 0x10;
inline constexpr char keep_flag = 0x20;

inline uint64_t little_endian(std::string_view bytes) {
    uint64_t value = 0;
    for (size_t n = bytes.size(); n > 0; --n) {
        value = value << 8 | static_cast<unsigned char>(bytes[n - 1]);
    }
    return value;
}
inline uint64_t detail_of(std::string_view frame) { return little_endian(frame.substr(6, 2)); }
inline uint64_t length_of(std::string_view frame) { return little_endian(frame.substr(8, 8)); }

#endif  // TESTS_FUZZ_FRAMES_H
