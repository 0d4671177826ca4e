// The least that a call can cost: a blocking exchange of the same bytes over an abstract stream
// socket, a connection per call, nothing checked.
#ifndef RAW_EXCHANGE_H
#define RAW_EXCHANGE_H

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "bench_support.h"

namespace bench {

inline constexpr size_t frame_header_bytes = 16;  // of the bus, in front of request and reply

struct raw_address {
    explicit raw_address(const std::string& text) {
        name.sun_family = AF_UNIX;
        memcpy(name.sun_path + 1, text.data(), text.size());
        length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + text.size());
    }
    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&name); }

    sockaddr_un name = {};
    socklen_t length = 0;
};

inline int raw_socket() {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) give_up("no socket");
    return fd;
}

inline void send_all(int fd, const std::vector<char>& bytes) {
    const ssize_t sent = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent != static_cast<ssize_t>(bytes.size())) give_up("cannot send");
}

inline void receive_all(int fd, std::vector<char>& bytes) {
    for (size_t taken = 0; taken < bytes.size();) {
        const ssize_t step = recv(fd, bytes.data() + taken, bytes.size() - taken, 0);
        if (step <= 0) give_up("cannot receive");
        taken += static_cast<size_t>(step);
    }
}

// A server as a process of its own, from the constructor to the destructor. What it does with a
// request, whose bytes come with the frame header, is made in that process.
class raw_server {
  public:
    using work = std::function<void(const char* request)>;

    raw_server(const std::string& name, size_t request_bytes, size_t reply_bytes,
               const std::function<work()>& make_work) {
        int ready[2];
        if (pipe2(ready, O_CLOEXEC) != 0) give_up("no pipe");
        child = fork();
        if (child == 0) {
            (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
            serve(name, ready[1], request_bytes, reply_bytes, make_work());
        }
        close(ready[1]);
        char byte = 0;
        if (read(ready[0], &byte, 1) != 1) give_up("the raw server did not start");
        close(ready[0]);
    }
    ~raw_server() {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
    raw_server(const raw_server&) = delete;
    raw_server& operator=(const raw_server&) = delete;

  private:
    [[noreturn]] static void serve(const std::string& name, int ready, size_t request_bytes,
                                   size_t reply_bytes, const work& on_request) {
        const raw_address address(name);
        const int listener = raw_socket();
        if (bind(listener, address.get(), address.length) != 0 || listen(listener, 64) != 0) {
            give_up("cannot listen");
        }
        std::vector<char> request(frame_header_bytes + request_bytes);
        const std::vector<char> reply(frame_header_bytes + reply_bytes);
        if (write(ready, "", 1) != 1) give_up("nobody waits");
        while (true) {
            const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) give_up("cannot accept");
            receive_all(fd, request);
            on_request(request.data());
            send_all(fd, reply);
            close(fd);
        }
    }

    pid_t child = -1;
};

// The caller's side of it: a connection per call.
class raw_caller {
  public:
    raw_caller(const std::string& name, size_t reply_bytes)
        : address(name), reply(frame_header_bytes + reply_bytes) {}

    void call(const std::vector<char>& request) {
        const int fd = raw_socket();
        if (connect(fd, address.get(), address.length) != 0) give_up("cannot connect");
        send_all(fd, request);
        receive_all(fd, reply);
        close(fd);
    }

  private:
    const raw_address address;
    std::vector<char> reply;
};

}  // namespace bench

#endif  // RAW_EXCHANGE_H
