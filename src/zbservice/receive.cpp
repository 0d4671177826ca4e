// Receives from a socket whose peer may attach descriptors to its bytes.
#include "receive.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstring>

namespace zb {
namespace {
void keep_first(const cmsghdr& part, descriptor& passed) {
    const unsigned char* data = CMSG_DATA(&part);
    for (std::size_t left = part.cmsg_len - CMSG_LEN(0); left >= sizeof(int); left -= sizeof(int)) {
        int fd = -1;
        std::memcpy(&fd, data, sizeof fd);
        data += sizeof fd;
        descriptor extra(fd);
        if (!passed.is_open()) passed = std::move(extra);
    }
}
}  // namespace

ssize_t receive_with_descriptor(int socket, char* target, std::size_t room, descriptor& passed) {
    // Room for one, which by its alignment admits two; the kernel closes what does not fit.
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
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
    if (received < 0) return received;
    for (cmsghdr* each = CMSG_FIRSTHDR(&message); each; each = CMSG_NXTHDR(&message, each)) {
        if (each->cmsg_level == SOL_SOCKET && each->cmsg_type == SCM_RIGHTS)
            keep_first(*each, passed);
    }
    return received;
}

}  // namespace zb
