// Both ends of the bus for tests: endpoints served on a thread or in a process of their own, calls
// through the library, and callers and endpoints that speak (or abuse) the frames by hand.
#ifndef TESTS_SUPPORT_BUS_H
#define TESTS_SUPPORT_BUS_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "support/kept_connections.h"
#include "zbservice.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define BUS_TEST_SANITIZED 1
#endif
#elif defined(__SANITIZE_ADDRESS__)
#define BUS_TEST_SANITIZED 1
#endif
#ifndef BUS_TEST_SANITIZED
#define BUS_TEST_SANITIZED 0
#endif

namespace bus_test {

// Nothing here takes that long; what does has failed.
inline constexpr int patience_ms = 30000;
inline constexpr int timeout_s = 20;

inline constexpr bool sanitized = BUS_TEST_SANITIZED;

// ---- Descriptors -------------------------------------------------------------------------------

// Owns a descriptor.
class file {
  public:
    explicit file(int fd = -1) : fd_(fd) {}
    file(file&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    file& operator=(file&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    file(const file&) = delete;
    file& operator=(const file&) = delete;
    ~file() { shut(); }
    void shut() {
        if (fd_ >= 0) close(std::exchange(fd_, -1));
    }
    int get() const { return fd_; }

  private:
    int fd_;
};

// An event that one thread or process sets and others wait for. Once set it stays so.
class event {
  public:
    event() : fd_(eventfd(0, EFD_CLOEXEC)) {}
    void set() { ASSERT_EQ(eventfd_write(fd_.get(), 1), 0); }
    bool wait(int timeout_ms = patience_ms) {
        pollfd polled = {fd_.get(), POLLIN, 0};
        int count = -1;
        do {
            count = poll(&polled, 1, timeout_ms);
        } while (count < 0 && errno == EINTR);
        return count == 1;
    }

  private:
    file fd_;
};

inline std::size_t open_descriptors() {
    using std::filesystem::directory_iterator;
    return static_cast<std::size_t>(
        std::distance(directory_iterator("/proc/self/fd"), directory_iterator()));
}

// Declared before all else in a test: at the end as many descriptors are open as before, but for
// the one connection that the test's own thread may have kept, as it calls no more than one address
// more than once. The bus's own one for signals, which is opened once, is open already.
class leak_check {
  public:
    leak_check() : before_(open_before()), kept_before_(kept_connections()) {}
    ~leak_check() {
        const std::size_t kept = kept_connections();
        EXPECT_LE(kept, kept_before_ + 1);
        EXPECT_EQ(open_descriptors() - kept, before_ - kept_before_) << "descriptors leak";
    }
    leak_check(const leak_check&) = delete;
    leak_check& operator=(const leak_check&) = delete;

  private:
    static std::size_t open_before() {
        EXPECT_EQ(zb_signal(SIGUSR2, nullptr), 0);
        return open_descriptors();
    }
    std::size_t before_;
    std::size_t kept_before_;
};

struct channel {
    channel() {
        int fds[2];
        EXPECT_EQ(pipe2(fds, O_CLOEXEC), 0);
        out = file(fds[0]);
        in = file(fds[1]);
    }
    // Whether every descriptor of the writing end is closed.
    bool is_hung_up(int timeout_ms = patience_ms) const {
        pollfd polled = {out.get(), 0, 0};
        return poll(&polled, 1, timeout_ms) == 1 && (polled.revents & POLLHUP) != 0;
    }
    file out;
    file in;
};

// ---- Frames by hand ----------------------------------------------------------------------------

inline std::string little_endian(std::uint64_t value, int bytes) {
    std::string text;
    for (int i = 0; i < bytes; ++i) text += static_cast<char>((value >> (8 * i)) & 0xff);
    return text;
}

inline std::string header(char version, char kind, std::uint64_t detail, std::uint64_t length) {
    return std::string("zbus") + version + kind + little_endian(detail, 2) +
           little_endian(length, 8);
}

inline std::string request_frame(std::string_view method, std::string_view body) {
    return header(1, 1, method.size(), body.size()) + std::string(method) + std::string(body);
}

// As this version's calls send it. Each has a date of its own.
enum keeping : bool { keep_not, keep };

inline std::uint32_t next_date() {
    static std::uint32_t last = 0;
    const auto now = [] {
        return static_cast<std::uint32_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                              std::chrono::steady_clock::now().time_since_epoch())
                                              .count());
    };
    std::uint32_t date = now();
    while (date == last) date = now();
    return last = date;
}

inline std::string dated_frame(std::string_view method, std::string_view body, keeping keeps,
                               std::uint32_t date = next_date()) {
    const char kind = keeps ? 0x31 : 0x11;
    return header(1, kind, method.size(), std::uint64_t{date} << 32 | body.size()) +
           std::string(method) + std::string(body);
}

enum status : std::uint16_t { replied, no_reply, refused, too_large, busy, malformed, not_run };

inline std::string reply_frame(status how, std::string_view body = "") {
    return header(1, 2, how, body.size()) + std::string(body);
}

// A reply after which the connection is kept.
inline std::string kept_frame(std::string_view body) {
    return header(1, 0x22, replied, body.size()) + std::string(body);
}

// ---- Sockets by hand ---------------------------------------------------------------------------

struct abstract_address {
    explicit abstract_address(std::string_view path) {
        name.sun_family = AF_UNIX;
        std::memcpy(name.sun_path, path.data(), path.size());
        name.sun_path[0] = '\0';  // in the place of the '@'
        length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    }
    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&name); }
    sockaddr_un name = {};
    socklen_t length = 0;
};

// A connected stream socket that gives up after a while instead of hanging.
class raw_stream {
  public:
    explicit raw_stream(int fd) : fd_(fd) {
        const timeval limit = {patience_ms / 1000, 0};
        (void)setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        (void)setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    }
    int fd() const { return fd_.get(); }

    bool send(std::string_view bytes) {
        while (!bytes.empty()) {
            const ssize_t sent = ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (sent <= 0) return false;
            bytes.remove_prefix(static_cast<std::size_t>(sent));
        }
        return true;
    }

    bool send_with(std::string_view bytes, const std::vector<int>& fds, int flags = 0) {
        std::vector<char> control(CMSG_SPACE(fds.size() * sizeof(int)));
        iovec part = {const_cast<char*>(bytes.data()), bytes.size()};
        msghdr message = {};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        cmsghdr* rights = CMSG_FIRSTHDR(&message);
        rights->cmsg_level = SOL_SOCKET;
        rights->cmsg_type = SCM_RIGHTS;
        rights->cmsg_len = CMSG_LEN(fds.size() * sizeof(int));
        std::memcpy(CMSG_DATA(rights), fds.data(), fds.size() * sizeof(int));
        return sendmsg(fd_.get(), &message, MSG_NOSIGNAL | flags) ==
               static_cast<ssize_t>(bytes.size());
    }

    // At most this many bytes; fewer at the end of the stream.
    std::string receive(std::size_t count) {
        std::string bytes;
        while (bytes.size() < count) {
            char part[64 * 1024];
            const ssize_t got =
                recv(fd_.get(), part, std::min(sizeof part, count - bytes.size()), 0);
            if (got <= 0) break;
            bytes.append(part, static_cast<std::size_t>(got));
        }
        return bytes;
    }
    std::string receive_all() { return receive(SIZE_MAX); }
    void shut() { fd_.shut(); }

  private:
    file fd_;
};

inline raw_stream connect_to(std::string_view path) {
    raw_stream stream(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const abstract_address address(path);
    EXPECT_EQ(connect(stream.fd(), address.get(), address.length), 0) << std::strerror(errno);
    return stream;
}

// An endpoint that does by hand whatever the test says, once per caller, on a thread of its own.
class raw_endpoint {
  public:
    raw_endpoint(std::string_view path, const std::function<void(raw_stream&)>& serve)
        : listener_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const abstract_address address(path);
        EXPECT_EQ(bind(listener_.get(), address.get(), address.length), 0);
        EXPECT_EQ(listen(listener_.get(), 8), 0);
        thread_ = std::thread([this, serve] {
            for (int fd = -1;
                 (fd = accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
                raw_stream caller(fd);
                serve(caller);
            }
        });
    }
    ~raw_endpoint() {
        (void)shutdown(listener_.get(), SHUT_RDWR);
        thread_.join();
    }
    raw_endpoint(const raw_endpoint&) = delete;
    raw_endpoint& operator=(const raw_endpoint&) = delete;

  private:
    file listener_;
    std::thread thread_;
};

// ---- Payloads and calls ------------------------------------------------------------------------

class io_buffer {
  public:
    explicit io_buffer(std::string_view text = "") : io_(zb_io_create()) {
        EXPECT_EQ(zb_io_write(io_, text.data(), text.size()), 0);
    }
    ~io_buffer() { zb_io_free(io_); }
    io_buffer(const io_buffer&) = delete;
    io_buffer& operator=(const io_buffer&) = delete;
    zb_io* get() { return io_; }

  private:
    zb_io* io_;
};

inline std::string_view content(zb_io* io) {
    std::size_t length = 0;
    const char* data = static_cast<const char*>(zb_io_read(io, &length));
    return {data, length};
}

struct outcome {
    int result;
    std::string payload;
    bool operator==(const outcome&) const = default;
};

inline std::ostream& operator<<(std::ostream& out, const outcome& value) {
    return out << zb_strerror(value.result) << ", " << value.payload.size() << " bytes \""
               << value.payload.substr(0, 80) << '"';
}

inline outcome call(const std::string& path, const std::string& method, std::string_view body = "",
                    int timeout = timeout_s, int fd = -1) {
    io_buffer io(body);
    const int result = zb_call(path.c_str(), method.c_str(), io.get(), timeout, fd);
    return {result, std::string(content(io.get()))};
}

inline void answer(zb_io* io, std::string_view text) {
    EXPECT_EQ(zb_io_realloc(io, 0), 0);
    EXPECT_EQ(zb_io_write(io, text.data(), text.size()), 0);
    EXPECT_EQ(zb_reply(io), 0);
}

// ---- Endpoints of the library ------------------------------------------------------------------

using handler = std::function<void(const std::string& method, zb_io* io, int fd)>;

// The entry has no room for a context: what it does stands here.
inline handler& current_handler() {
    static handler current;
    return current;
}

inline void entry(const char* method, zb_io* io, int fd) {
    current_handler()(method, io, fd);
    if (fd >= 0) close(fd);
}

// Sends the request back, with its method in front.
inline void echo(const std::string& method, zb_io* io, int) {
    const std::string text = method + ":" + std::string(content(io));
    answer(io, text);
}

// Serves an address on a thread. The address is taken when the constructor returns, so callers need
// not wait for anything.
class endpoint {
  public:
    explicit endpoint(handler handle = echo, const char* path = "@/test/endpoint",
                      const std::function<void()>& prepare = {}) {
        current_handler() = std::move(handle);
        service_ = zb_create(path, 4, 1, entry);
        EXPECT_NE(service_, nullptr);
        thread_ = std::thread([this, prepare] {
            if (prepare) prepare();
            result_ = zb_start(service_);
        });
    }
    ~endpoint() {
        stop();
        zb_free(service_);
    }
    endpoint(const endpoint&) = delete;
    endpoint& operator=(const endpoint&) = delete;

    // What zb_start returned.
    int stop() {
        if (thread_.joinable()) {
            EXPECT_EQ(zb_stop(service_), 0);
            thread_.join();
        }
        return result_;
    }
    // Waits until somebody else has stopped it.
    int join() {
        thread_.join();
        return result_;
    }
    zb_service* get() { return service_; }
    std::thread::id thread() const { return thread_.get_id(); }

  private:
    zb_service* service_ = nullptr;
    std::thread thread_;
    int result_ = -2;
};

inline constexpr const char* address = "@/test/endpoint";

// A child process that runs a function; its end is awaited.
class process {
  public:
    explicit process(const std::function<void()>& run) : pid_(fork()) {
        if (pid_ == 0) {
            (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
            run();
            _exit(testing::Test::HasFailure() ? 1 : 0);
        }
    }
    ~process() {
        if (pid_ > 0) {
            (void)kill(pid_, SIGKILL);
            (void)wait();
        }
    }
    process(const process&) = delete;
    process& operator=(const process&) = delete;

    // The status as waitpid tells it.
    int wait(rusage* usage = nullptr) {
        int status = -1;
        EXPECT_EQ(wait4(std::exchange(pid_, -1), &status, 0, usage) > 0, true);
        return status;
    }
    pid_t pid() const { return pid_; }

  private:
    pid_t pid_;
};

// Serves in a process of its own and with a single thread, as a daemon does. `prepare` runs there,
// before the endpoint exists; callers may come when the constructor returns.
class served_process {
  public:
    explicit served_process(handler handle, const std::function<void()>& prepare = {},
                            const std::function<void()>& before_start = {})
        : child_([&] {
              current_handler() = std::move(handle);
              if (prepare) prepare();
              service() = zb_create(address, 4, 1, entry);
              ready_.set();
              if (before_start) before_start();
              EXPECT_EQ(zb_start(service()), 0);
              zb_free(service());
          }) {
        EXPECT_TRUE(ready_.wait());
    }
    pid_t pid() const { return child_.pid(); }
    int wait(rusage* usage = nullptr) { return child_.wait(usage); }

    // In the child: its endpoint.
    static zb_service*& service() {
        static zb_service* current = nullptr;
        return current;
    }

  private:
    event ready_;  // before the child, which uses it
    process child_;
};

}  // namespace bus_test

#endif  // TESTS_SUPPORT_BUS_H
