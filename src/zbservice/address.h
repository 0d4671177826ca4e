// Where an endpoint's path leads: the same on both sides.
#ifndef ZBSERVICE_ADDRESS_H
#define ZBSERVICE_ADDRESS_H

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <string_view>

namespace zb {

struct socket_address {
    sockaddr_un name;
    socklen_t length;  // exact: an abstract name has no padding

    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&name); }
    // What follows the leading zero byte.
    std::string_view text() const {
        return {name.sun_path + 1, length - offsetof(sockaddr_un, sun_path) - 1};
    }
};

// Resolves "@/x/y", or the plain name of a registered service. Returns false for a null, empty or
// over-long path and for a plain name with a '/' in it.
bool resolve_address(const char* path, socket_address& address);

}  // namespace zb

#endif  // ZBSERVICE_ADDRESS_H
