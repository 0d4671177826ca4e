// Payload buffers, the names of results and the interface as such.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <set>
#include <string>

#include "support/bus.h"
#include "zbservice.h"

extern "C" int c11_round_trip_of_a_buffer(void);

namespace {
using bus_test::content;
using bus_test::io_buffer;

constexpr std::size_t gib = std::size_t{1} << 30;

// A buffer's text as a program reads it that trusts the zero byte.
std::string text_of(zb_io* io) { return static_cast<const char*>(zb_io_read(io, nullptr)); }
}  // namespace

TEST(zb_io, new_one_is_empty_and_has_its_zero_byte) {
    io_buffer io;
    std::size_t length = 99;
    const void* data = zb_io_read(io.get(), &length);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(length, 0U);
    EXPECT_EQ(*static_cast<const char*>(data), '\0');
}

TEST(zb_io, write_appends_and_keeps_a_zero_byte_behind) {
    io_buffer io;
    std::string expected;
    for (int i = 0; i < 3000; ++i) {
        ASSERT_EQ(zb_io_write(io.get(), "0123456789", static_cast<std::size_t>(i % 11)), 0);
        expected.append("0123456789", static_cast<std::size_t>(i % 11));
        ASSERT_EQ(static_cast<const char*>(zb_io_read(io.get(), nullptr))[expected.size()], '\0');
    }
    EXPECT_EQ(content(io.get()), expected);
}

TEST(zb_io, keeps_zero_bytes_inside) {
    io_buffer io(std::string_view("a\0b", 3));
    EXPECT_EQ(content(io.get()), std::string_view("a\0b", 3));
}

TEST(zb_io, realloc_0_empties) {
    io_buffer io("something");
    EXPECT_EQ(zb_io_realloc(io.get(), 0), 0);
    EXPECT_EQ(content(io.get()), "");
    EXPECT_EQ(text_of(io.get()), "");
    EXPECT_EQ(zb_io_write(io.get(), "new", 3), 0);
    EXPECT_EQ(text_of(io.get()), "new");
}

TEST(zb_io, realloc_0_empties_a_large_one_and_an_empty_one) {
    io_buffer io(std::string(1000000, 'x'));
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(zb_io_realloc(io.get(), 0), 0);
        EXPECT_EQ(text_of(io.get()), "");
    }
}

TEST(zb_io, realloc_cuts) {
    io_buffer io("something");
    EXPECT_EQ(zb_io_realloc(io.get(), 4), 0);
    EXPECT_EQ(content(io.get()), "some");
    EXPECT_EQ(text_of(io.get()), "some");
}

TEST(zb_io, realloc_extends_with_zero_bytes) {
    io_buffer io("something");
    EXPECT_EQ(zb_io_realloc(io.get(), 4), 0);
    EXPECT_EQ(zb_io_realloc(io.get(), 4000), 0);
    EXPECT_EQ(content(io.get()), "some" + std::string(3996, '\0'));
}

TEST(zb_io, write_of_nothing_needs_no_data) {
    io_buffer io("x");
    EXPECT_EQ(zb_io_write(io.get(), nullptr, 0), 0);
    EXPECT_EQ(content(io.get()), "x");
}

TEST(zb_io, null_arguments_fail_and_do_nothing) {
    io_buffer io("x");
    std::size_t length = 99;
    EXPECT_EQ(zb_io_write(nullptr, "a", 1), -1);
    EXPECT_EQ(zb_io_write(io.get(), nullptr, 1), -1);
    EXPECT_EQ(zb_io_realloc(nullptr, 0), -1);
    EXPECT_EQ(zb_io_read(nullptr, &length), nullptr);
    EXPECT_EQ(length, 0U);
    EXPECT_EQ(zb_io_read(nullptr, nullptr), nullptr);
    zb_io_free(nullptr);
    EXPECT_EQ(content(io.get()), "x");
}

TEST(zb_io, payload_over_1_gib_is_refused_and_the_old_one_kept) {
    io_buffer io("x");
    EXPECT_EQ(zb_io_write(io.get(), "a", gib), -1);  // refused before a byte of it is read
    EXPECT_EQ(zb_io_write(io.get(), "a", SIZE_MAX), -1);
    EXPECT_EQ(zb_io_realloc(io.get(), gib + 1), -1);
    EXPECT_EQ(zb_io_realloc(io.get(), SIZE_MAX), -1);
    EXPECT_EQ(text_of(io.get()), "x");
}

TEST(zb_strerror, every_result_has_a_name_of_its_own) {
    std::set<std::string> names;
    for (int error = 0; error >= ZB_ERROR_SYSTEM; --error) names.insert(zb_strerror(error));
    EXPECT_EQ(names.size(), 13U);
    EXPECT_EQ(names.count("unknown error"), 0U);
}

TEST(zb_strerror, unknown_values_have_a_text_too) {
    for (const int error : {1, -13, INT32_MAX, INT32_MIN})
        EXPECT_STREQ(zb_strerror(error), "unknown error");
}

TEST(zbservice, header_serves_a_c11_program) { EXPECT_EQ(c11_round_trip_of_a_buffer(), 0); }

TEST(zbservice, exports_its_interface_and_nothing_else) {
    FILE* out =
        popen("nm -D --defined-only --format=just-symbols '" ZBSERVICE_LIBRARY "' | sort", "re");
    ASSERT_NE(out, nullptr);
    std::string names;
    char part[4096];
    while (std::fgets(part, sizeof part, out)) names += part;
    EXPECT_EQ(pclose(out), 0);
    EXPECT_EQ(names,
              "zb_call\nzb_call_into\nzb_create\nzb_free\nzb_io_adopt\nzb_io_create\nzb_io_free\n"
              "zb_io_read\nzb_io_realloc\nzb_io_write\nzb_reply\nzb_signal\nzb_start\nzb_stop\nzb_"
              "strerror\n");
}
