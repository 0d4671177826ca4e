// Where an endpoint's path leads.
#include "address.h"

#include <cstddef>
#include <string_view>

namespace zb {
namespace {
constexpr std::string_view registered_services = "/var/run/zbservice/";
}

bool resolve_address(const char* path, socket_address& address) {
    if (!path) return false;
    std::string_view name = path;
    std::string_view folder;
    if (name.starts_with('@')) {
        name.remove_prefix(1);
    } else if (name.find('/') == std::string_view::npos) {
        folder = registered_services;
    } else {
        return false;
    }
    const std::size_t length = 1 + folder.size() + name.size();  // the leading zero byte counts
    if (name.empty() || length > sizeof address.name.sun_path) return false;

    address.name.sun_family = AF_UNIX;
    address.name.sun_path[0] = '\0';
    folder.copy(address.name.sun_path + 1, folder.size());
    name.copy(address.name.sun_path + 1 + folder.size(), name.size());
    address.length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
    return true;
}

}  // namespace zb
