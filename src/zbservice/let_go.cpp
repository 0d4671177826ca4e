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

bool lingers(const descriptor& each) {
    linger how = {};
    socklen_t length = sizeof how;
    return each.is_open() && getsockopt(each.get(), SOL_SOCKET, SO_LINGER, &how, &length) == 0 &&
           how.l_onoff != 0;
}

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

// Leaves the last copies to a process that exits. When none can be made, the closes are this
// process's own.
void close_in_child(std::span<descriptor> strange) {
    const pid_t self = getpid();
    const pid_t child = fork();
    if (child == 0) hold_until_killed(self);
    for (descriptor& each : strange) each.reset();
    if (child < 0) return;
    (void)kill(child, SIGKILL);
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
}

}  // namespace

void let_go(std::span<descriptor> strange) {
    if (std::any_of(strange.begin(), strange.end(), lingers)) close_in_child(strange);
    for (descriptor& each : strange) each.reset();
}

void hang_up(descriptor& connection, descriptor&& passed) {
    (void)shutdown(connection.get(), SHUT_RDWR);
    descriptor ended = std::move(connection);
    descriptor last = std::move(passed);
    let_go({&last, 1});
    if (has_descriptors_unread(ended.get())) close_in_child({&ended, 1});
}

}  // namespace zb
