// The calling side: a request on a connection, kept or new, and its reply.
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
#include "kept.h"
#include "payload.h"
#include "peer.h"
#include "report.h"
#include "signals.h"
#include "wait.h"

namespace zb {
namespace {
constexpr std::chrono::seconds usual_timeout{5};

// Besides a zb_error: the request is certain not to have been started, so it may be sent again.
constexpr int not_run = 1;
// The endpoint does not know this version's requests.
constexpr int not_understood = 2;

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
// it. A member of the group may be one no longer at the next call, so nothing is kept with him.
int check_holder(int socket, const socket_address& address, bool& may_keep) {
    const uid_t user = user_of(socket);
    may_keep = is_root_or_self(user);
    if (may_keep || is_member(socket, deployment_group())) return ZB_OK;
    const std::string_view name = address.text();
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
    outgoing_request(frame_header header, std::string_view method, payload& body, int fd)
        : header_(encode_header(header)),
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
            return not_understood;
        case reply_status::not_run:
            return not_run;
    }
    return ZB_ERROR_PROTOCOL;
}

// Waits for bytes and takes them. `received` is at least 1 on success. No control buffer: the
// kernel closes descriptors that come with a reply.
int receive(int socket, char* target, std::size_t room, patient_wait& time, std::size_t& received) {
    while (true) {
        const bool waits = time.is_left_to_receive();
        if (!waits && time.wait(socket, POLLIN) == 0) return ZB_ERROR_TIMEOUT;
        const ssize_t step = recv(socket, target, room, waits ? 0 : MSG_DONTWAIT);
        if (step > 0) {
            time.restart();
            received = static_cast<std::size_t>(step);
            return ZB_OK;
        }
        if (step == 0) return ZB_ERROR_BROKEN;
        if (errno == ECONNRESET) return not_run;  // it closed before it had read everything
        if (errno == EAGAIN && waits) return ZB_ERROR_TIMEOUT;
        if (errno != EINTR && errno != EAGAIN) return system_error();
        time.leave_to_receive(false);
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

// What is answered has been run, however the connection ends.
int error_in_reply(int error) { return error == not_run ? ZB_ERROR_BROKEN : error; }

int receive_reply(int socket, payload& content, patient_wait& time, bool& is_kept) {
    // Header and a small payload come with one receive.
    std::array<char, header_bytes + 8 * kib> first;
    std::size_t taken = 0;
    while (taken < header_bytes) {
        std::size_t received = 0;
        const int error =
            receive(socket, first.data() + taken, first.size() - taken, time, received);
        if (error) return taken == 0 ? error : error_in_reply(error);
        taken += received;
    }
    header_block block;
    std::copy_n(first.begin(), header_bytes, block.begin());
    frame_header header;
    if (!decode_header(block, frame_kind::reply, header)) return ZB_ERROR_PROTOCOL;
    if (const int error = error_of(header.detail)) return error;
    if (header.length > max_reply_bytes) return ZB_ERROR_TOO_LARGE;
    if (header.length < taken - header_bytes) return ZB_ERROR_PROTOCOL;
    is_kept = header.keep;

    const char* start = first.data() + header_bytes;
    const std::size_t length = taken - header_bytes;
    if (header.length == length && !content.place_of_reply)
        return content.assign(start, length) ? ZB_OK : ZB_ERROR_MEMORY;
    payload reply;  // the request stays in the caller's buffer until all of this is there
    arrival bytes(socket, {start, length}, time);
    const int error = receive_payload(bytes, header.length, content.place_of_reply, reply);
    if (!error) content.swap(reply);
    return error_in_reply(error);
}

// ---- Calls -------------------------------------------------------------------------------------

// What is called, with what. Holds no more than references.
struct task {
    const socket_address& address;
    std::string_view method;
    payload& content;
    int fd;
    monotonic::time_point start;

    frame_header header() const {
        return {frame_kind::request, static_cast<std::uint16_t>(method.size()), content.size()};
    }
    frame_header dated_header(bool keep) const {
        frame_header header = this->header();
        header.keep = keep;
        header.dated = true;
        header.date = date_of(start);
        return header;
    }
};

// One request and its reply. A request that was not sent to its end is not run.
int exchange(int socket, const task& what, const frame_header& header, patient_wait& time,
             bool& is_kept) {
    outgoing_request request(header, what.method, what.content, what.fd);
    if (const int error = send_request(socket, request, time)) return error;
    const int result = receive_reply(socket, what.content, time, is_kept);
    return result == ZB_ERROR_BROKEN && !request.is_sent() ? not_run : result;
}

int call_on_kept(const task& what, patient_wait& time) {
    kept_connection* kept = take_kept(what.address, what.start);
    if (!kept) return not_run;
    time.leave_to_receive(!delivers_signals_here() && limit_receives(*kept, time.patience()));
    bool is_kept = false;
    const int result = exchange(socket_of(*kept), what, what.dated_header(true), time, is_kept);
    time.leave_to_receive(false);
    result == ZB_OK&& is_kept ? give_back(*kept, what.start) : drop(*kept);
    return result;
}

int call_on_new(const task& what, const frame_header& header, patient_wait& time) {
    descriptor socket;
    bool may_keep = false;
    if (const int error = connect_to(what.address, time, socket)) return error;
    if (const int error = check_holder(socket.get(), what.address, may_keep)) return error;
    bool is_kept = false;
    const int result = exchange(socket.get(), what, header, time, is_kept);
    if (result == ZB_OK && header.keep && is_kept && may_keep)
        keep(std::move(socket), what.address, what.start);
    return result;
}

// Older endpoints are called in their own way, at once for as long as they are known.
int call_anew(const task& what, patient_wait& time) {
    const acquaintance met = meet(what.address, what.start);
    if (!met.is_old) {
        const int result = call_on_new(what, what.dated_header(met.is_recent), time);
        if (result != not_understood) return result;
        note_old_endpoint(what.address);
    }
    return call_on_new(what, what.header(), time);
}

// What the caller is told: a request that was sent as often as it may be is not sent again.
int error_for_caller(int result) {
    if (result == not_run) return ZB_ERROR_BROKEN;
    return result == not_understood ? ZB_ERROR_PROTOCOL : result;
}
}  // namespace

int call(const char* path, const char* method, zb_io& io, int timeout_s, int fd) {
    socket_address address;
    if (!method || *method == '\0' || !resolve_address(path, address)) return ZB_ERROR_ARGUMENT;
    const std::string_view name = method;
    if (name.size() > max_method_bytes) return ZB_ERROR_ARGUMENT;
    if (io.content.size() > max_request_bytes) return ZB_ERROR_TOO_LARGE;

    patient_wait time(timeout_s > 0 ? std::chrono::seconds(timeout_s) : usual_timeout);
    const task what{address, name, io.content, fd, monotonic::now()};
    int result = call_on_kept(what, time);
    if (result == not_run) result = call_anew(what, time);
    return error_for_caller(result);
}

}  // namespace zb
