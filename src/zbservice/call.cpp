// The calling side: one connection, one request, one reply.
#include "call.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <string_view>

#include "address.h"
#include "bounds.h"
#include "descriptor.h"
#include "frame.h"
#include "payload.h"
#include "peer.h"
#include "report.h"
#include "wait.h"

namespace zb {
namespace {
constexpr std::chrono::seconds usual_timeout{5};

int system_error() {
    return errno == ENOMEM || errno == ENOBUFS ? ZB_ERROR_MEMORY : ZB_ERROR_SYSTEM;
}

// ---- Connecting --------------------------------------------------------------------------------

// Also when the endpoint's queue of callers is full: then a place in it is tried for again and
// again. Whoever waits for one inside the kernel waits behind all others who do, however many a
// hostile user has sent there.
int connect_to(const socket_address& address, patient_wait& time, descriptor& connected) {
    descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket.is_open()) return system_error();
    while (connect(socket.get(), address.get(), address.length) != 0) {
        if (errno == ECONNREFUSED) return ZB_ERROR_UNREACHABLE;
        if (errno != EAGAIN && errno != EINTR) return system_error();
        time.pause();
        if (time.is_over()) return ZB_ERROR_TIMEOUT;
    }
    connected = std::move(socket);
    return ZB_OK;
}

// An abstract name has no owner on disk: anyone could have taken it first. The operator learns of
// it.
int check_holder(int socket, const socket_address& address) {
    const uid_t user = user_of(socket);
    if (is_root_or_self(user) || is_member(socket, deployment_group())) return ZB_OK;
    const std::string_view name(address.name.sun_path + 1,
                                address.length - offsetof(sockaddr_un, sun_path) - 1);
    if (is_due(name)) {
        report("\"@%.*s\" is held by user %u, who is not trusted: calls of it are refused",
               static_cast<int>(name.size()), name.data(), user);
    }
    return ZB_ERROR_UNTRUSTED;
}

// ---- Sending -----------------------------------------------------------------------------------

// The request's three parts, of which the first `sent` bytes are gone.
class outgoing_request {
  public:
    outgoing_request(std::string_view method, payload& body, int fd)
        : header_(encode_header(
              {frame_kind::request, static_cast<std::uint16_t>(method.size()), body.size()})),
          parts_{{header_.data(), header_.size()},
                 {const_cast<char*>(method.data()), method.size()},
                 {body.data(), body.size()}},
          fd_(fd) {}

    bool is_sent() const { return next_ == std::size(parts_); }

    // Sends what the socket takes now; the descriptor goes with the first bytes. -1 with errno.
    int send(int socket) {
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
        msghdr message = {};
        message.msg_iov = parts_ + next_;
        message.msg_iovlen = std::size(parts_) - next_;
        if (fd_ >= 0) attach_descriptor(message, control);
        const ssize_t sent = sendmsg(socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0) return -1;
        fd_ = -1;
        advance(static_cast<std::size_t>(sent));
        return 0;
    }

  private:
    void attach_descriptor(msghdr& message, char (&control)[CMSG_SPACE(sizeof(int))]) const {
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        cmsghdr* part = CMSG_FIRSTHDR(&message);
        part->cmsg_level = SOL_SOCKET;
        part->cmsg_type = SCM_RIGHTS;
        part->cmsg_len = CMSG_LEN(sizeof fd_);
        std::memcpy(CMSG_DATA(part), &fd_, sizeof fd_);
    }

    void advance(std::size_t sent) {
        while (next_ < std::size(parts_) && sent >= parts_[next_].iov_len)
            sent -= parts_[next_++].iov_len;
        if (next_ == std::size(parts_)) return;
        parts_[next_].iov_base = static_cast<char*>(parts_[next_].iov_base) + sent;
        parts_[next_].iov_len -= sent;
    }

    header_block header_;
    iovec parts_[3];
    std::size_t next_ = 0;
    int fd_;
};

// Also ends, without an error, when the endpoint answers or hangs up before it has read everything:
// it may have left a frame that says why.
int send_request(int socket, outgoing_request& request, patient_wait& time) {
    while (!request.is_sent()) {
        if (request.send(socket) == 0) {
            time.restart();
            continue;
        }
        if (errno == EPIPE || errno == ECONNRESET) return ZB_OK;
        if (errno == EBADF) return ZB_ERROR_ARGUMENT;
        if (errno == EINTR) continue;
        if (errno != EAGAIN) return system_error();
        const short ready = time.wait(socket, POLLIN | POLLOUT);
        if (ready == 0) return ZB_ERROR_TIMEOUT;
        if (ready & POLLIN) return ZB_OK;
    }
    return ZB_OK;
}

// ---- Receiving ---------------------------------------------------------------------------------

int error_of(std::uint16_t status) {
    switch (static_cast<reply_status>(status)) {
        case reply_status::replied:
            return ZB_OK;
        case reply_status::no_reply:
            return ZB_ERROR_NO_REPLY;
        case reply_status::refused:
            return ZB_ERROR_DENIED;
        case reply_status::too_large:
            return ZB_ERROR_TOO_LARGE;
        case reply_status::busy:
            return ZB_ERROR_BUSY;
        case reply_status::malformed:
            break;
    }
    return ZB_ERROR_PROTOCOL;
}

// Waits for bytes and takes them. `received` is at least 1 on success. No control buffer: the
// kernel closes descriptors that come with a reply.
int receive(int socket, char* target, std::size_t room, patient_wait& time, std::size_t& received) {
    while (true) {
        if (time.wait(socket, POLLIN) == 0) return ZB_ERROR_TIMEOUT;
        const ssize_t step = recv(socket, target, room, MSG_DONTWAIT);
        if (step > 0) {
            time.restart();
            received = static_cast<std::size_t>(step);
            return ZB_OK;
        }
        if (step == 0 || errno == ECONNRESET) return ZB_ERROR_BROKEN;
        if (errno != EINTR && errno != EAGAIN) return system_error();
    }
}

// Receives bytes in place, the first of which may have come before.
class arrival {
  public:
    arrival(int socket, std::string_view come, patient_wait& time)
        : socket_(socket), come_(come), time_(time) {}

    int receive_whole(char* target, std::size_t length) {
        const std::size_t known = std::min(come_.size(), length);
        std::memcpy(target, come_.data(), known);
        come_.remove_prefix(known);
        std::size_t taken = known;
        while (taken < length) {
            std::size_t received = 0;
            const int error = receive(socket_, target + taken, length - taken, time_, received);
            if (error) return error;
            taken += received;
        }
        return ZB_OK;
    }

  private:
    const int socket_;
    std::string_view come_;
    patient_wait& time_;
};

// Receives a reply of so many bytes: whole into a payload, or behind its head to where the caller
// wants it.
int receive_payload(arrival& bytes, std::size_t length, const reply_place* place, payload& reply) {
    const std::size_t head = place ? std::min(place->head, length) : length;
    if (!reply.expect(head)) return ZB_ERROR_MEMORY;
    if (const int error = bytes.receive_whole(reply.end(), head)) return error;
    reply.extend(head);
    if (head == length) return ZB_OK;
    void* rest = place->place(place->arg, reply.data(), length - head);
    if (!rest) return ZB_ERROR_MEMORY;
    return bytes.receive_whole(static_cast<char*>(rest), length - head);
}

int receive_reply(int socket, payload& content, patient_wait& time) {
    // Header and a small payload come with one receive.
    std::array<char, header_bytes + 8 * kib> first;
    std::size_t taken = 0;
    while (taken < header_bytes) {
        std::size_t received = 0;
        const int error =
            receive(socket, first.data() + taken, first.size() - taken, time, received);
        if (error) return error;
        taken += received;
    }
    header_block block;
    std::copy_n(first.begin(), header_bytes, block.begin());
    frame_header header;
    if (!decode_header(block, frame_kind::reply, header)) return ZB_ERROR_PROTOCOL;
    if (const int error = error_of(header.detail)) return error;
    if (header.length > max_reply_bytes) return ZB_ERROR_TOO_LARGE;
    if (header.length < taken - header_bytes) return ZB_ERROR_PROTOCOL;

    const char* start = first.data() + header_bytes;
    const std::size_t length = taken - header_bytes;
    if (header.length == length && !content.place_of_reply)
        return content.assign(start, length) ? ZB_OK : ZB_ERROR_MEMORY;
    payload reply;  // the request stays in the caller's buffer until all of this is there
    arrival bytes(socket, {start, length}, time);
    const int error = receive_payload(bytes, header.length, content.place_of_reply, reply);
    if (!error) content.swap(reply);
    return error;
}
}  // namespace

int call(const char* path, const char* method, zb_io& io, int timeout_s, int fd) {
    socket_address address;
    if (!method || *method == '\0' || !resolve_address(path, address)) return ZB_ERROR_ARGUMENT;
    const std::string_view name = method;
    if (name.size() > max_method_bytes) return ZB_ERROR_ARGUMENT;
    if (io.content.size() > max_request_bytes) return ZB_ERROR_TOO_LARGE;

    patient_wait time(timeout_s > 0 ? std::chrono::seconds(timeout_s) : usual_timeout);
    descriptor socket;
    if (const int error = connect_to(address, time, socket)) return error;
    if (const int error = check_holder(socket.get(), address)) return error;
    outgoing_request request(name, io.content, fd);
    if (const int error = send_request(socket.get(), request, time)) return error;
    return receive_reply(socket.get(), io.content, time);
}

}  // namespace zb
