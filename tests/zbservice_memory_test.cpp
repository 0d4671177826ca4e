// Out of memory is a result like any other. The largest block of memory is bounded in here: by the
// address space, or by the allocator where that belongs to a sanitizer.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <fstream>
#include <string>

#include "support/bus.h"

using namespace bus_test;

#if BUS_TEST_SANITIZED
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {
    return "allocator_may_return_null=1:max_allocation_size_mb=96";
}
#endif

namespace {
constexpr std::size_t mib = 1 << 20;

void bound_memory() {
    if (sanitized) return;  // bounded since the start
    std::size_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    const rlim_t bytes = pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) + 96 * mib;
    const rlimit limit = {bytes, bytes};
    ASSERT_EQ(setrlimit(RLIMIT_AS, &limit), 0);
}
}  // namespace

TEST(out_of_memory, buffer_keeps_its_payload) {
    bound_memory();
    io_buffer io("kept");
    EXPECT_EQ(zb_io_realloc(io.get(), 500 * mib), -1);
    EXPECT_EQ(content(io.get()), "kept");
    const std::string part(mib, 'x');
    std::size_t written = 4;
    while (written < 500 * mib && zb_io_write(io.get(), part.data(), part.size()) == 0)
        written += part.size();
    EXPECT_LT(written, 500 * mib);
    EXPECT_GT(written, 10 * mib);
    EXPECT_EQ(content(io.get()).size(), written);
}

TEST(out_of_memory, reply_that_does_not_fit_is_told_and_the_request_kept) {
    raw_endpoint served(address, [](raw_stream& caller) {
        (void)caller.receive(request_frame("m", "x").size());
        (void)caller.send(header(1, 2, 0, 500 * mib));
        const std::string part(mib, 'x');
        while (caller.send(part)) {
        }
    });
    bound_memory();
    EXPECT_EQ(call(address, "m", "x"), (outcome{ZB_ERROR_MEMORY, "x"}));
}
