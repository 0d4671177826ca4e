// A fuzz target: a function that takes any bytes, and ends the program when they break a promise.
//
// The same target is built twice. The preset `fuzz` links it with libFuzzer, which looks for such
// bytes; every other preset links it with replay_main.cpp, which runs the seeds beside the target.
// A target that touches files runs in a throw-away root (tools/in_root).
#ifndef TESTS_FUZZ_TARGET_H
#define TESTS_FUZZ_TARGET_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

// The target. Returns 0 always.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fuzz {

// Ends the program, so that the input is kept, unless the promise holds.
inline void expect(bool holds, const char* promise) {
    if (holds) return;
    (void)fprintf(stderr, "broken promise: %s\n", promise);
    abort();
}

// Takes an input apart from its front. What is not there reads as zeros and empty texts.
class input {
  public:
    input(const uint8_t* data, size_t size) : left_(reinterpret_cast<const char*>(data), size) {}

    bool is_empty() const { return left_.empty(); }

    uint8_t byte() {
        const std::string_view taken = take(1);
        return taken.empty() ? uint8_t{0} : static_cast<uint8_t>(taken[0]);
    }
    uint8_t below(uint8_t bound) { return static_cast<uint8_t>(byte() % bound); }

    template <class Number>
    Number number() {
        uint64_t value = 0;
        for (size_t n = 0; n < sizeof value; ++n)
            value |= uint64_t{byte_within<Number>(n)} << 8 * n;
        return static_cast<Number>(value);
    }

    // A text with its length, of two bytes, in front.
    std::string text() { return std::string(take(number<uint16_t>())); }
    // The text up to a zero byte, or all.
    std::string line() {
        std::string text(left_.substr(0, left_.find('\0')));
        (void)take(text.size() + 1);
        return text;
    }
    std::string rest() { return std::string(take(left_.size())); }

  private:
    std::string_view take(size_t count) {
        const std::string_view taken = left_.substr(0, count);
        left_.remove_prefix(taken.size());
        return taken;
    }
    template <class Number>
    uint8_t byte_within(size_t n) {
        return n < sizeof(Number) ? byte() : uint8_t{0};
    }

    std::string_view left_;
};

// --- Files ---------------------------------------------------------------------------------------

// Replaces a file's bytes.
inline void put_file(const char* path, std::string_view bytes) {
    std::ofstream(path, std::ios::binary)
        .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// The file's bytes; empty when there is none.
inline std::string get_file(const char* path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

}  // namespace fuzz

#endif  // TESTS_FUZZ_TARGET_H
