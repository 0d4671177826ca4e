// Fresh device identifiers: their form, and a kernel source that is missing, short or odd. The
// linker puts this program's functions in the place of open and read.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <filesystem>
#include <set>
#include <string>

#include "ravod_mobile.h"
#include "support/files.h"
#include "support/log_lines.h"

namespace {

constexpr char kernel_source[] = "/proc/sys/kernel/random/uuid";
constexpr char other_source[] = "/tmp/uuid";

enum class source { kernel, missing, other };
source opened_source = source::kernel;
int opening_flags = 0;            // of the last opening of the source
int source_fd = -1;               // what it gave
size_t most_per_read = SIZE_MAX;  // bytes that a read of the source gives at once
size_t asked_for = 0;             // by the reads of the source, at most at once
size_t bytes_read = 0;

ssize_t read_source(int fd, void* buffer, size_t size, ssize_t (*real_read)(int, void*, size_t)) {
    if (fd != source_fd) return real_read(fd, buffer, size);
    asked_for = std::max(asked_for, bytes_read + size);
    const ssize_t got = real_read(fd, buffer, std::min(size, most_per_read));
    if (got > 0) bytes_read += static_cast<size_t>(got);
    return got;
}

}  // namespace

extern "C" {
int __real_open(const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, ...);
ssize_t __real_read(int fd, void* buffer, size_t size);
ssize_t __wrap_read(int fd, void* buffer, size_t size);
ssize_t __wrap___read_chk(int fd, void* buffer, size_t size, size_t room);

int __wrap_open(const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    const auto mode = (flags & O_CREAT) != 0 ? va_arg(args, mode_t) : 0;
    va_end(args);
    if (std::string(path) != kernel_source) return __real_open(path, flags, mode);
    opening_flags = flags;
    if (opened_source == source::missing) {
        errno = ENOENT;
        return -1;
    }
    source_fd = __real_open(opened_source == source::other ? other_source : path, flags, mode);
    return source_fd;
}

ssize_t __wrap_read(int fd, void* buffer, size_t size) {
    return read_source(fd, buffer, size, __real_read);
}

// What the hardened build calls.
ssize_t __wrap___read_chk(int fd, void* buffer, size_t size, size_t room) {
    EXPECT_LE(size, room);
    return read_source(fd, buffer, size, __real_read);
}
}

namespace {

size_t open_descriptors() {
    using std::filesystem::directory_iterator;
    return static_cast<size_t>(
        std::distance(directory_iterator("/proc/self/fd"), directory_iterator()));
}

// A caller's buffer, with room behind it that is nobody's.
struct uuid_buffer {
    char bytes[36] = {};
    char guard[8] = {'g', 'u', 'a', 'r', 'd', 'g', 'u', 'a'};

    std::string all() const { return {bytes, sizeof bytes}; }
    bool is_guarded() const { return std::string(guard, 8) == "guardgua"; }
};

// What a generation from a source with this content leaves in the buffer.
std::string generate_from(const std::string& content) {
    opened_source = source::other;
    write_file(other_source, content);
    uuid_buffer uuid;
    EXPECT_EQ(ravo_uuid_gen(uuid.bytes), 0);
    EXPECT_TRUE(uuid.is_guarded());
    return uuid.all();
}

// The 36 bytes that hold these characters and the suffix.
std::string with_suffix(const std::string& taken) {
    std::string bytes(36, '\0');
    bytes.replace(0, taken.size(), taken);
    return bytes.replace(32, 3, "%R?");
}

constexpr char known_uuid[] = "3f2a9c4e-1b7d-4e0f-8a6b-5c4d3e2f1a0b";
constexpr char known_digits[] = "3f2a9c4e1b7d4e0f8a6b5c4d3e2f1a0b";

}  // namespace

TEST(uuid, has_32_digits_of_the_kernel_the_suffix_and_a_nul) {
    for (int n = 0; n < 100; ++n) {
        uuid_buffer uuid;
        ASSERT_EQ(ravo_uuid_gen(uuid.bytes), 0);
        ASSERT_EQ(uuid.all().find_first_not_of("0123456789abcdef"), 32U) << uuid.all();
        ASSERT_EQ(uuid.all().substr(32), std::string("%R?\0", 4));
        ASSERT_EQ(uuid.bytes[12], '4') << "the version digit, so the kernel's order is kept";
        ASSERT_TRUE(uuid.is_guarded());
    }
    EXPECT_EQ(read_file(log_path), "");
}

TEST(uuid, generations_differ) {
    std::set<std::string> all;
    for (int n = 0; n < 1000; ++n) {
        uuid_buffer uuid;
        ravo_uuid_gen(uuid.bytes);
        all.insert(uuid.all());
    }
    EXPECT_EQ(all.size(), 1000U);
}

TEST(uuid, digits_keep_their_order_and_case_and_lose_the_hyphens) {
    EXPECT_EQ(generate_from(std::string(known_uuid) + "\n"), with_suffix(known_digits));
    EXPECT_EQ(generate_from("ABCDEF01-2345-6789-abcd-ef0123456789\n"),
              with_suffix("ABCDEF0123456789abcdef0123456789"));
}

TEST(uuid, reads_36_bytes_and_no_newline) {
    generate_from(std::string(known_uuid) + "\n");
    EXPECT_EQ(asked_for, 36U);
    EXPECT_EQ(bytes_read, 36U);
}

TEST(uuid, short_reads_are_continued) {
    for (const size_t step : {1U, 2U, 7U, 35U, 36U}) {
        most_per_read = step;
        EXPECT_EQ(generate_from(std::string(known_uuid) + "\n"), with_suffix(known_digits)) << step;
    }
}

TEST(uuid, source_that_ends_early_gives_what_there_is_and_the_suffix) {
    for (size_t length = 0; length <= 36; ++length) {
        const std::string content = std::string(known_uuid).substr(0, length);
        std::string digits = content;
        std::erase(digits, '-');
        EXPECT_EQ(generate_from(content), with_suffix(digits)) << length;
    }
}

TEST(uuid, text_of_the_source_ends_at_a_nul) {
    EXPECT_EQ(generate_from(std::string("abc\0defabcdefabcdefabcdefabcdefabcdefabcdef", 43)),
              with_suffix("abc"));
    EXPECT_EQ(generate_from(std::string(36, '\0')), with_suffix(""));
}

TEST(uuid, takes_32_characters_at_most) {
    EXPECT_EQ(generate_from("0123456789abcdefghijklmnopqrstuvwxyz"),
              with_suffix("0123456789abcdefghijklmnopqrstuv"));
    EXPECT_EQ(generate_from("----0123456789abcdefghijklmnopqrstuv"),
              with_suffix("0123456789abcdefghijklmnopqrstuv"));
}

TEST(uuid, source_of_hyphens_gives_the_suffix_alone) {
    EXPECT_EQ(generate_from(std::string(36, '-')), with_suffix(""));
}

TEST(uuid, source_that_cannot_be_read_gives_the_suffix_alone) {
    opened_source = source::other;
    ASSERT_TRUE(std::filesystem::create_directory(other_source));
    uuid_buffer uuid;
    EXPECT_EQ(ravo_uuid_gen(uuid.bytes), 0);
    EXPECT_EQ(uuid.all(), with_suffix(""));
}

TEST(uuid, missing_source_is_logged_and_leaves_the_buffer) {
    opened_source = source::missing;
    uuid_buffer uuid;
    EXPECT_EQ(ravo_uuid_gen(uuid.bytes), -1);
    EXPECT_EQ(uuid.all(), std::string(36, '\0'));
    std::fill_n(uuid.bytes, 36, 'x');
    EXPECT_EQ(ravo_uuid_gen(uuid.bytes), -1);
    EXPECT_EQ(uuid.all(), std::string(36, 'x'));
    EXPECT_TRUE(uuid.is_guarded());
    const expected_line line = {"ERROR", "ravod_mobile.cpp", "uuid_gen", "open uuid failed\n"};
    expect_log({line, line});
}

TEST(uuid, source_is_opened_for_reading_close_on_exec_and_closed_again) {
    const size_t before = open_descriptors();
    uuid_buffer uuid;
    for (int n = 0; n < 10; ++n) ravo_uuid_gen(uuid.bytes);
    EXPECT_EQ(opening_flags & (O_ACCMODE | O_CLOEXEC), O_RDONLY | O_CLOEXEC);
    opened_source = source::missing;
    ravo_uuid_gen(uuid.bytes);
    EXPECT_EQ(open_descriptors(), before);
}
