// Sockets whose close waits: whoever closes one last waits until its peer has read.
#ifndef TESTS_SUPPORT_LINGERING_H
#define TESTS_SUPPORT_LINGERING_H

#include <netinet/in.h>

#include <chrono>

#include "support/bus.h"

namespace bus_test {

class lingering_sockets {
  public:
    explicit lingering_sockets(std::size_t count)
        : listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in name = {};
        name.sin_family = AF_INET;
        name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof name;
        EXPECT_EQ(bind(listener_.get(), reinterpret_cast<sockaddr*>(&name), length), 0);
        EXPECT_EQ(listen(listener_.get(), 8), 0);
        EXPECT_EQ(getsockname(listener_.get(), reinterpret_cast<sockaddr*>(&name), &length), 0);
        while (made_.size() < count) make(name);
    }

    // Hands them over; the only copies are the receiver's then.
    bool send_through(raw_stream& stream, std::string_view bytes, int flags = 0) {
        std::vector<int> fds;
        for (const file& each : made_) fds.push_back(each.get());
        const bool sent = stream.send_with(bytes, fds, flags);
        made_.clear();
        return sent;
    }

  private:
    void make(const sockaddr_in& name) {
        file made(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        EXPECT_EQ(connect(made.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name), 0);
        const std::string bytes(1 << 20, 'x');
        while (send(made.get(), bytes.data(), bytes.size(), MSG_DONTWAIT) > 0) {
        }
        const linger wait = {1, static_cast<int>(seconds)};
        EXPECT_EQ(setsockopt(made.get(), SOL_SOCKET, SO_LINGER, &wait, sizeof wait), 0);
        made_.push_back(std::move(made));
    }

    static constexpr auto seconds = 20;
    file listener_;  // takes none, so that nothing is ever read; its end would end them
    std::vector<file> made_;
};

// Much sooner than such a socket is closed.
template <class Step>
void expect_soon(Step step) {
    const auto start = std::chrono::steady_clock::now();
    step();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

}  // namespace bus_test

#endif  // TESTS_SUPPORT_LINGERING_H
