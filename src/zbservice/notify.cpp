// Tells whoever started the program that it serves now.
#include "notify.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "descriptor.h"

namespace zb {

void notify_ready() {
    const char* text = std::getenv("NOTIFY_SOCKET");
    const std::string_view path = text ? text : "";
    sockaddr_un name = {};
    if (path.size() < 2 || path.size() >= sizeof name.sun_path) return;
    name.sun_family = AF_UNIX;
    std::memcpy(name.sun_path, path.data(), path.size());
    if (path[0] == '@') name.sun_path[0] = '\0';
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());

    const descriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    constexpr std::string_view ready = "READY=1";
    // Serving does not depend on it: a supervisor that is gone misses nothing.
    (void)sendto(socket.get(), ready.data(), ready.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                 reinterpret_cast<const sockaddr*>(&name), length);
}

}  // namespace zb
