// Closes what somebody else made, without waiting for him.
#include "let_go.h"

#include <linux/sockios.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "bounds.h"
#include "receive.h"

namespace zb {
namespace {
// Holds copies of all descriptors until it is killed.
[[noreturn]] void hold_until_killed(pid_t parent) {
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    while (getppid() == parent) (void)pause();
    _exit(0);
}

bool is_open(const descriptor& each) { return each.is_open(); }

// Whether nothing waits unread.
bool is_all_read(int socket) {
    int unread = -1;
    return ioctl(socket, SIOCINQ, &unread) == 0 && unread == 0;
}

// Whether what waits unread may come with descriptors. Reads what comes without; nothing more can
// come after a shutdown().
bool has_descriptors_unread(int socket) {
    if (is_all_read(socket)) return false;
    take_urgent_bytes_in_turn(socket);
    char bytes[receive_bytes];
    iovec part = {bytes, sizeof bytes};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    // Without room for them the kernel tells of descriptors and, as nothing is taken, keeps them.
    while (recvmsg(socket, &message, MSG_DONTWAIT | MSG_PEEK) > 0) {
        if ((message.msg_flags & MSG_CTRUNC) != 0) return true;
        if (recv(socket, bytes, sizeof bytes, MSG_DONTWAIT) <= 0) break;
        message.msg_flags = 0;
    }
    return !is_all_read(socket);
}
}  // namespace

void let_go(std::span<descriptor> strange) {
    if (std::none_of(strange.begin(), strange.end(), is_open)) return;
    const pid_t self = getpid();
    const pid_t child = fork();
    if (child == 0) hold_until_killed(self);
    for (descriptor& each : strange) each.reset();
    if (child < 0) return;
    (void)kill(child, SIGKILL);
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
}

void hang_up(descriptor& connection, descriptor&& passed) {
    (void)shutdown(connection.get(), SHUT_RDWR);
    std::array<descriptor, 2> both = {std::move(connection), std::move(passed)};
    if (both[1].is_open() || has_descriptors_unread(both[0].get())) let_go(both);
}

}  // namespace zb
