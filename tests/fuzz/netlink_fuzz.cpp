// The reader of the kernel's routes and links: whatever the datagram, what it takes is sound, and
// the same bytes say the same again.
//
// Input: a byte for the family, then the datagram.
#include <sys/socket.h>

#include <set>
#include <vector>

#include "default_routes.h"
#include "fuzz_target.h"

namespace {

// A block of its own, so that the first byte read past it is seen.
using datagram = std::vector<unsigned char>;

void expect_result(int result) {
    fuzz::expect(result == reply_goes_on || result >= 0, "the result is one of those promised");
}

void expect_preference(const std::vector<default_route>& routes) {
    std::set<uint32_t> known;
    for (const default_route& route : routes) known.insert(route.interface);
    for (const uint32_t interface : interfaces_by_preference(routes)) {
        fuzz::expect(known.erase(interface) == 1, "an interface of a route is named once");
    }
}

void read_routes(const datagram& bytes, uint8_t family) {
    std::vector<default_route> routes;
    const int result = take_routes(bytes, family, routes);
    expect_result(result);
    fuzz::expect(routes.size() <= max_routes, "no more routes than the bound");
    for (const default_route& route : routes) {
        fuzz::expect(route.family == family, "no route of another family");
        fuzz::expect(route.prefix_length <= 1, "default routes and halves only");
        fuzz::expect(route.interface != 0, "a route has an interface");
        fuzz::expect(route.prefix_length == 1 || !route.is_upper_half, "only halves have halves");
    }
    expect_preference(routes);
    std::vector<default_route> again;
    fuzz::expect(take_routes(bytes, family, again) == result && again == routes,
                 "the same bytes are the same routes");
    while (again.size() < max_routes) again.emplace_back();
    (void)take_routes(bytes, family, again);
    fuzz::expect(again.size() == max_routes, "the bound holds over all datagrams");
}

void read_link(const datagram& bytes) {
    interface_link link;
    expect_result(take_link(bytes, link));
    fuzz::expect(link.name.size() + link.kind.size() <= bytes.size(), "texts are the datagram's");
    fuzz::expect((link.name + link.kind).find('\0') == std::string::npos, "texts end at their NUL");
    fuzz::expect(*interface_type(link) != '\0', "a link has a type");
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const datagram bytes(data + 1, data + size);
    read_routes(bytes, data[0] % 2 == 0 ? AF_INET : AF_INET6);
    read_link(bytes);
    return 0;
}
