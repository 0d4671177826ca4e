// Sends a reply frame.
#include "reply_writer.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <utility>

#include "bounds.h"

namespace zb {

void reply_writer::start(payload&& content, bool keep) {
    const auto status = static_cast<std::uint16_t>(reply_status::replied);
    block_ = encode_header({frame_kind::reply, status, content.whole_size(), keep});
    content_ = std::move(content);
    sent_ = 0;
    released_ = 0;
    state_ = write_state::unsent;
}

void reply_writer::reset() {
    content_.clear();
    sent_ = 0;
    released_ = 0;
    state_ = write_state::unsent;
}

write_state reply_writer::send(int socket) {
    const std::size_t head = header_bytes - std::min(sent_, header_bytes);
    const std::size_t body = sent_ - (header_bytes - head);  // bytes of the payload that are sent
    const std::size_t own = std::min(body, content_.size());
    const std::size_t attached = body - own;
    iovec parts[] = {
        {block_.data() + header_bytes - head, head},
        {content_.data() + own, std::min(content_.size() - own, send_bytes)},
        {content_.attached() + attached, std::min(content_.attached_size() - attached, send_bytes)},
    };
    msghdr message = {};
    message.msg_iov = parts;
    message.msg_iovlen = std::size(parts);
    ssize_t step = -1;
    do {
        step = sendmsg(socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    } while (step < 0 && errno == EINTR);
    if (step < 0) {
        const bool full = errno == EAGAIN || errno == ENOBUFS || errno == ENOMEM;
        return state_ = full ? write_state::unsent : write_state::broken;
    }
    sent_ += static_cast<std::size_t>(step);
    if (sent_ == header_bytes + content_.whole_size()) state_ = write_state::sent;
    release_sent();
    return state_;
}

void reply_writer::release_sent() {
    if (sent_ < header_bytes + released_ + release_bytes) return;
    content_.forget(released_, sent_ - header_bytes);
    released_ = sent_ - header_bytes;
}

void reply_writer::abandon() {
    content_.clear();
    state_ = write_state::broken;
}

void send_status(int socket, reply_status status) {
    const auto block = encode_header({frame_kind::reply, static_cast<std::uint16_t>(status), 0});
    (void)send(socket, block.data(), block.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

}  // namespace zb
