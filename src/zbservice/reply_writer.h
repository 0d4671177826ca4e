// Sends a reply frame, as much at a time as the caller takes.
#ifndef ZBSERVICE_REPLY_WRITER_H
#define ZBSERVICE_REPLY_WRITER_H

#include <cstddef>

#include "bounds.h"
#include "frame.h"
#include "payload.h"

namespace zb {

enum class write_state { unsent, sent, broken };

class reply_writer {
  public:
    // Takes the payload over; nothing is copied. The frame says whether the connection is kept.
    void start(payload&& content, bool keep);
    void reset();

    // Sends one piece, of send_bytes at most, without blocking. Unsent: more is left.
    write_state send(int socket);

    // Gives the reply up and its memory back.
    void abandon();

    write_state state() const { return state_; }
    // A large reply is charged for as long as it waits, a small one is not.
    bool is_large() const { return content_.whole_size() > small_reply_bytes; }
    std::size_t charge() const { return is_large() ? content_.whole_size() - released_ : 0; }
    std::size_t sent() const { return sent_; }

  private:
    void release_sent();

    header_block block_{};
    payload content_;
    std::size_t sent_ = 0;      // bytes of header and payload
    std::size_t released_ = 0;  // bytes of the payload whose memory is given back
    write_state state_ = write_state::unsent;
};

// Sends a reply frame without a payload, if the socket takes it at once: this is for callers who
// are given up, and none of them is waited for.
void send_status(int socket, reply_status status);

}  // namespace zb

#endif  // ZBSERVICE_REPLY_WRITER_H
