// The readers of frames when the system lets them down: no memory for a payload, failing receives.
//
// The linker puts this program's functions in the place of realloc and recv. Only the thread that
// asks for failures gets them; an endpoint on a thread of its own does not.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <string>
#include <utility>

#include "request_reader.h"
#include "support/bus.h"

namespace {
thread_local int reallocs_left = -1;  // that succeed; -1: all
thread_local int receive_error = 0;   // of the next receive
}  // namespace

extern "C" {
void* __real_realloc(void* block, size_t size);
void* __wrap_realloc(void* block, size_t size);
void* __wrap_realloc(void* block, size_t size) {
    if (reallocs_left == 0) return nullptr;
    if (reallocs_left > 0) --reallocs_left;
    return __real_realloc(block, size);
}
ssize_t __real_recv(int fd, void* room, size_t size, int flags);
ssize_t __wrap_recv(int fd, void* room, size_t size, int flags);
ssize_t __wrap_recv(int fd, void* room, size_t size, int flags) {
    if (receive_error == 0) return __real_recv(fd, room, size, flags);
    errno = std::exchange(receive_error, 0);
    return -1;
}
// The same function, as hardened builds name it.
ssize_t __wrap___recv_chk(int fd, void* room, size_t size, size_t room_size, int flags);
ssize_t __wrap___recv_chk(int fd, void* room, size_t size, size_t /*room_size*/, int flags) {
    return __wrap_recv(fd, room, size, flags);
}
}

namespace {

using namespace bus_test;
using zb::read_state;

// Sends this reply to every caller.
class replying {
  public:
    explicit replying(const std::string& frame)
        : endpoint_(address, [frame](raw_stream& caller) {
              (void)caller.receive(request_frame("m", "").size());
              (void)caller.send(frame);
          }) {}

  private:
    raw_endpoint endpoint_;
};

TEST(request_reader, without_memory_for_the_body_says_so_and_can_begin_anew) {
    const std::string frame = request_frame("method", std::string(1000, 'x'));
    zb::request_reader reader;
    reallocs_left = 0;
    EXPECT_EQ(reader.feed(frame.data(), frame.size()), read_state::out_of_memory);
    reallocs_left = -1;
    reader.reset();
    EXPECT_EQ(reader.feed(frame.data(), frame.size()), read_state::complete);
    EXPECT_STREQ(reader.method(), "method");
    EXPECT_EQ(reader.body().size(), 1000U);
}

TEST(reply_reader, without_memory_fails_with_the_request_left) {
    for (const size_t size : {size_t{1000}, size_t{100000}}) {
        const replying endpoint(reply_frame(replied, std::string(size, 'x')));
        for (int left = 0;; ++left) {
            ASSERT_LT(left, 30);
            io_buffer io;
            reallocs_left = left;
            const int result = zb_call(address, "m", io.get(), timeout_s, -1);
            reallocs_left = -1;
            if (result == ZB_OK) {
                EXPECT_EQ(content(io.get()).size(), size);
                EXPECT_GT(left, 0);
                break;
            }
            EXPECT_EQ(result, ZB_ERROR_MEMORY);
            EXPECT_EQ(content(io.get()), "");
        }
    }
}

TEST(reply_reader, failing_receive_fails_and_an_interrupted_one_does_not) {
    const replying endpoint(reply_frame(replied, "reply"));
    for (const auto& [error, result] : {std::pair(ENOMEM, ZB_ERROR_MEMORY),
                                        {ENOBUFS, ZB_ERROR_MEMORY},
                                        {EIO, ZB_ERROR_SYSTEM},
                                        {ECONNRESET, ZB_ERROR_BROKEN},
                                        {EINTR, ZB_OK},
                                        {EAGAIN, ZB_OK}}) {
        receive_error = error;
        EXPECT_EQ(call(address, "m"), (outcome{result, result == ZB_OK ? "reply" : ""})) << error;
    }
}

}  // namespace
