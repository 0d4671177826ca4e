// The connections that this process's calls have kept.
#ifndef TESTS_SUPPORT_KEPT_CONNECTIONS_H
#define TESTS_SUPPORT_KEPT_CONNECTIONS_H

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <string>

namespace bus_test {

// Whether a descriptor is this end of a connection to an endpoint.
inline bool is_connected_to_endpoint(int fd) {
    sockaddr_un name = {};
    socklen_t length = sizeof name;
    return getpeername(fd, reinterpret_cast<sockaddr*>(&name), &length) == 0 &&
           name.sun_family == AF_UNIX && length > offsetof(sockaddr_un, sun_path);
}

// The connections that this process's calls have kept: at most one for each thread and address.
inline std::size_t kept_connections() {
    using std::filesystem::directory_iterator;
    const auto is_kept = [](const auto& each) {
        return is_connected_to_endpoint(std::stoi(each.path().filename()));
    };
    return static_cast<std::size_t>(
        std::count_if(directory_iterator("/proc/self/fd"), directory_iterator(), is_kept));
}

// Makes them end for their endpoints; the calls find that out.
inline void end_kept_connections() {
    for (const auto& each : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int fd = std::stoi(each.path().filename());
        if (is_connected_to_endpoint(fd)) (void)shutdown(fd, SHUT_RDWR);
    }
}

}  // namespace bus_test

#endif  // TESTS_SUPPORT_KEPT_CONNECTIONS_H
