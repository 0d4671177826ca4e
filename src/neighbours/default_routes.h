// The interfaces over which the machine's default routes go, read from the kernel by rtnetlink.
//
// What counts as a default route:
//  - A unicast route of the main table for all destinations, with a gateway or just a device, each
//    hop of a multipath route on its own. Not a blackhole or another route that refuses, nor a dead
//    hop, one whose interface is down.
//  - Two routes of the main table for half of all destinations each (prefix length 1) over one
//    interface: VPN programs cover a default route with such a pair, to leave it untouched.
// Other tables apply to some packets only, as rules say, so what stands there is no default of the
// machine. A hop that is known by the number of a nexthop object alone is passed over.
//
// Message and attribute layouts are those of netlink(7) and rtnetlink(7).
#ifndef NEIGHBOURS_DEFAULT_ROUTES_H
#define NEIGHBOURS_DEFAULT_ROUTES_H

#include <cstdint>
#include <span>
#include <string>
#include <vector>

// --- The machine's -------------------------------------------------------------------------------

struct gateway_interface {
    std::string name;  // any bytes, as the kernel knows it
    const char* type;  // one of the words of interface_type
};

// Reads the interfaces of the default routes: IPv4 first; per family the pairs of halves before the
// whole ones, as the kernel prefers them, then by metric, the best first. An interface is named
// once, at its best place. Of more than max_routes hops per family the best are looked at.
//
// Blocks for at most 3 seconds. Returns 0 or an errno, and then the list is empty: EINTR when the
// routes changed again and again meanwhile, ETIMEDOUT, EBADMSG when the kernel's answer makes no
// sense, or why the kernel refuses.
int read_gateway_interfaces(std::vector<gateway_interface>& interfaces);

// --- Its parts: what the kernel's bytes say ------------------------------------------------------

constexpr size_t max_routes = 256;
constexpr int reply_goes_on = -1;

struct default_route {
    uint8_t family = 0;         // AF_INET or AF_INET6
    uint8_t prefix_length = 0;  // 0, or 1 for half of all destinations
    bool is_upper_half = false;
    uint32_t metric = 0;
    uint32_t interface = 0;  // its index

    bool operator==(const default_route&) const = default;
};

struct interface_link {
    std::string name;
    std::string kind;            // the kernel's word for a virtual interface; empty: another one
    uint16_t hardware_type = 0;  // ARPHRD_... of if_arp.h
};

using byte_span = std::span<const unsigned char>;

// Adds the routes in one datagram of the answer to RTM_GETROUTE, halves included; beyond
// max_routes the best of them stay.
// Other families and messages are passed over.
//
// Returns 0 when the answer ends with this datagram, reply_goes_on when more are to come, EINTR
// when the routes changed while the kernel listed them (begin anew), EBADMSG when the bytes are
// malformed, otherwise the errno that they carry.
int take_routes(byte_span datagram, uint8_t family, std::vector<default_route>& routes);

// Takes the link in one datagram of the answer to RTM_GETLINK. Returns like take_routes.
int take_link(byte_span datagram, interface_link& link);

// The interfaces of the routes in the order in which the kernel prefers them, each once. Equal ones
// keep their order.
std::vector<uint32_t> interfaces_by_preference(std::vector<default_route> routes);

// What an interface is, in one word:
//  "VPN"       a name that begins with "mirec", "tun" or "ppp", or a tunnel by its kind or hardware
//              type, point-to-point protocol included
//  "Bridge"    a bridge
//  "Wireless"  has a radio, as /sys/class/net/NAME tells
//  "Ethernet"  any other with Ethernet's addresses, also a bond or a virtual LAN
//  "Other"     the rest
const char* interface_type(const interface_link& link);

#endif  // NEIGHBOURS_DEFAULT_ROUTES_H
