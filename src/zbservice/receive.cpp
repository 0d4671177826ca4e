// Receives from a socket whose peer may attach descriptors to its bytes.
#include "receive.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <span>
#include <utility>

#include "let_go.h"

namespace zb {
namespace {
constexpr std::size_t most_passed = 253;  // the kernel's SCM_MAX_FD, see unix(7)

// Takes the descriptors of a part over.
void take(const cmsghdr& part, std::span<descriptor, most_passed> came, std::size_t& count) {
    const unsigned char* data = CMSG_DATA(&part);
    for (std::size_t left = part.cmsg_len - CMSG_LEN(0); left >= sizeof(int); left -= sizeof(int)) {
        int fd = -1;
        std::memcpy(&fd, data, sizeof fd);
        data += sizeof fd;
        came[count++].reset(fd);
    }
}

void keep_first(msghdr& message, descriptor& passed) {
    std::array<descriptor, most_passed> came;
    std::size_t count = 0;
    for (cmsghdr* each = CMSG_FIRSTHDR(&message); each; each = CMSG_NXTHDR(&message, each)) {
        if (each->cmsg_level == SOL_SOCKET && each->cmsg_type == SCM_RIGHTS)
            take(*each, came, count);
    }
    std::span<descriptor> unwanted(came.data(), count);
    if (count > 0 && !passed.is_open()) {
        passed = std::move(unwanted.front());
        unwanted = unwanted.subspan(1);
    }
    let_go(unwanted);
}
}  // namespace

void take_urgent_bytes_in_turn(int socket) {
    const int on = 1;
    (void)setsockopt(socket, SOL_SOCKET, SO_OOBINLINE, &on, sizeof on);
}

ssize_t receive_with_descriptor(int socket, char* target, std::size_t room, descriptor& passed) {
    // Room for all that can come, for the kernel would close what does not fit and wait for it.
    alignas(cmsghdr) char control[CMSG_SPACE(most_passed * sizeof(int))];
    iovec part = {target, room};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    ssize_t received = -1;
    do {
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        received = recvmsg(socket, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    } while (received < 0 && errno == EINTR);
    if (received >= 0 && message.msg_controllen > 0) keep_first(message, passed);
    return received;
}

}  // namespace zb
