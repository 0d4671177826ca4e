// The kernel's word about the other side of a connection, replaced: each side can be anybody for
// the other. Included by one source of a program.
#ifndef TESTS_SUPPORT_OTHER_SIDE_H
#define TESTS_SUPPORT_OTHER_SIDE_H

#include <dlfcn.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "support/bus.h"

namespace bus_test {

struct identity {
    uid_t user;
    gid_t group;
    std::vector<gid_t> groups{};
};

// Who the other side is for this thread; nobody in particular: whoever it really is.
inline thread_local std::optional<identity> other_side;

inline constexpr uid_t stranger = 4711;
inline constexpr gid_t their_group = 4712;
inline constexpr gid_t deployed_group = 4713;

inline void deploy(const std::string& text) { std::ofstream("/etc/zbservice.conf") << text; }

// ---- Callers of several users ------------------------------------------------------------------

// A caller whose own address says which user he is to be taken for, a member of the deployed group.
inline raw_stream connect_as(uid_t user, std::string_view path = address) {
    static std::atomic<int> count = 0;
    raw_stream stream(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const abstract_address own("@user/" + std::to_string(user) + "/" + std::to_string(count++));
    EXPECT_EQ(bind(stream.fd(), own.get(), own.length), 0) << std::strerror(errno);
    const abstract_address other(path);
    EXPECT_EQ(connect(stream.fd(), other.get(), other.length), 0) << std::strerror(errno);
    return stream;
}

inline std::optional<identity> identity_in_address(int fd) {
    sockaddr_un name = {};
    socklen_t length = sizeof name;
    uid_t user = 0;
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&name), &length) != 0 ||
        length <= offsetof(sockaddr_un, sun_path) + 1 ||
        std::sscanf(name.sun_path + 1, "user/%u/", &user) != 1)
        return std::nullopt;
    return identity{user, deployed_group, {}};
}

// ---- getsockopt --------------------------------------------------------------------------------

inline int copy_credentials(const identity& other, void* value, socklen_t* length) {
    const ucred peer = {1, other.user, other.group};
    std::memcpy(value, &peer, sizeof peer);
    *length = sizeof peer;
    return 0;
}

inline int copy_groups(const identity& other, void* value, socklen_t* length) {
    const auto needed = static_cast<socklen_t>(other.groups.size() * sizeof(gid_t));
    const bool fits = *length >= needed;
    *length = needed;
    if (!fits) {
        errno = ERANGE;
        return -1;
    }
    if (needed > 0) std::memcpy(value, other.groups.data(), needed);
    return 0;
}

}  // namespace bus_test

// In the library's place for getsockopt too.
extern "C" __attribute__((visibility("default"))) int getsockopt(int fd, int level, int name,
                                                                 void* value,
                                                                 socklen_t* length) noexcept {
    using function = int (*)(int, int, int, void*, socklen_t*);
    static const auto original = reinterpret_cast<function>(dlsym(RTLD_NEXT, "getsockopt"));
    if (level == SOL_SOCKET && (name == SO_PEERCRED || name == SO_PEERGROUPS)) {
        const auto other =
            bus_test::other_side ? bus_test::other_side : bus_test::identity_in_address(fd);
        if (other && name == SO_PEERCRED) return bus_test::copy_credentials(*other, value, length);
        if (other) return bus_test::copy_groups(*other, value, length);
    }
    return original(fd, level, name, value, length);
}

#endif  // TESTS_SUPPORT_OTHER_SIDE_H
