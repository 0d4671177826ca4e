// The interfaces over which the machine's default routes go, read from the kernel by rtnetlink.
//
// An answer of the kernel is one datagram or several. Each holds messages, a message a fixed part
// and attributes, an attribute possibly attributes of its own. All of them say their length first,
// and none is believed: whatever would pass the end of what holds it makes the datagram malformed.
#include "default_routes.h"

#include <linux/if_arp.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string_view>
#include <utility>

#include "descriptor.h"

namespace {

using steady_clock = std::chrono::steady_clock;

constexpr std::chrono::seconds patience{3};  // for everything that is asked
constexpr int max_attempts = 5;              // at a list that does not change meanwhile
constexpr size_t max_datagram = 32768;       // bytes; the kernel makes no larger part of a list
constexpr uint32_t sequence = 1;             // a socket asks one question

// --- Bytes ---------------------------------------------------------------------------------------

// Takes a value off the front of the bytes. False when they are too few.
template <class T>
bool take(byte_span& bytes, T& value) {
    if (bytes.size() < sizeof value) return false;
    memcpy(&value, bytes.data(), sizeof value);
    bytes = bytes.subspan(sizeof value);
    return true;
}

// Takes a piece of this many bytes off the front, and the padding behind it (netlink(7): to a
// multiple of 4), which may be missing at the very end. False when the bytes are too few.
bool take_piece(byte_span& bytes, size_t length, byte_span& piece) {
    if (bytes.size() < length) return false;
    piece = bytes.first(length);
    bytes = bytes.subspan(std::min(bytes.size(), size_t{NLMSG_ALIGN(length)}));
    return true;
}

// Takes a piece whose head, of this type, says its whole length. False when that is nonsense.
template <class Head>
bool take_headed(byte_span& bytes, size_t (*length_of)(const Head&), Head& head, byte_span& body) {
    byte_span front = bytes;
    byte_span piece;
    if (!take(front, head) || length_of(head) < sizeof head) return false;
    if (!take_piece(bytes, length_of(head), piece)) return false;
    body = piece.subspan(sizeof head);
    return true;
}

size_t message_length(const nlmsghdr& head) { return head.nlmsg_len; }
size_t attribute_length(const rtattr& head) { return head.rta_len; }
size_t hop_length(const rtnexthop& head) { return head.rtnh_len; }

// Hands each attribute to visit(type, value), which returns false when it makes no sense. False
// when one does not.
template <class Visit>
bool visit_attributes(byte_span bytes, Visit visit) {
    while (!bytes.empty()) {
        rtattr head = {};
        byte_span value;
        if (!take_headed(bytes, attribute_length, head, value)) return false;
        if (!visit(head.rta_type & NLA_TYPE_MASK, value)) return false;
    }
    return true;
}

// A text ends with a zero byte or with its attribute.
std::string read_text(byte_span value) {
    const auto end = std::find(value.begin(), value.end(), 0);
    return {value.begin(), end};
}

// --- Messages ------------------------------------------------------------------------------------

// What an error message, or the end of a list, says: 0 or an errno. The kernel's numbers are
// negative (netlink(7)).
int told_error(byte_span body) {
    int32_t error = 0;
    if (!take(body, error) || error > 0 || error == INT32_MIN) return EBADMSG;
    return -error;
}

// Hands the body of each message of this type to take_body(body), which returns false when it makes
// no sense. Returns like take_routes.
template <class TakeBody>
int take_messages(byte_span datagram, uint16_t type, TakeBody take_body) {
    while (!datagram.empty()) {
        nlmsghdr head = {};
        byte_span body;
        if (!take_headed(datagram, message_length, head, body)) return EBADMSG;
        if (head.nlmsg_seq != sequence) continue;
        if ((head.nlmsg_flags & NLM_F_DUMP_INTR) != 0) return EINTR;
        if (head.nlmsg_type == NLMSG_ERROR) return told_error(body);
        if (head.nlmsg_type == NLMSG_DONE) return body.empty() ? 0 : told_error(body);
        if (head.nlmsg_type == NLMSG_OVERRUN) return ENOBUFS;
        if (head.nlmsg_type == type && !take_body(body)) return EBADMSG;
        // Only a list has several parts.
        if (head.nlmsg_type == type && (head.nlmsg_flags & NLM_F_MULTI) == 0) return 0;
    }
    return reply_goes_on;
}

// --- Routes --------------------------------------------------------------------------------------

struct route_attributes {
    uint32_t table = RT_TABLE_UNSPEC;
    uint32_t metric = 0;
    uint32_t interface = 0;  // no interface has this index
    bool is_upper_half = false;
    byte_span hops;
};

bool read_route_attributes(byte_span bytes, route_attributes& found) {
    return visit_attributes(bytes, [&](int type, byte_span value) {
        switch (type) {
            case RTA_TABLE:
                return take(value, found.table);
            case RTA_PRIORITY:
                return take(value, found.metric);
            case RTA_OIF:
                return take(value, found.interface);
            case RTA_MULTIPATH:
                found.hops = value;
                return true;
            case RTA_DST:
                found.is_upper_half = !value.empty() && (value[0] & 0x80) != 0;
                return !value.empty();
            default:
                return true;
        }
    });
}

bool is_preferred(const default_route& one, const default_route& other) {
    if (one.family != other.family) return one.family == AF_INET;
    if (one.prefix_length != other.prefix_length) return one.prefix_length > other.prefix_length;
    return one.metric < other.metric;
}

// When there is no room, the least preferred route goes, the last of equal ones.
void add_route(default_route route, uint32_t interface, unsigned flags,
               std::vector<default_route>& routes) {
    route.interface = interface;
    if (interface == 0 || (flags & RTNH_F_DEAD) != 0) return;
    routes.push_back(route);
    if (routes.size() <= max_routes) return;
    const auto worst = std::max_element(routes.rbegin(), routes.rend(), is_preferred);
    routes.erase(std::next(worst).base());
}

// The hops of a multipath route. Their attributes tell gateways, which do not matter here.
bool add_hops(const default_route& route, byte_span hops, std::vector<default_route>& routes) {
    while (!hops.empty()) {
        rtnexthop head = {};
        byte_span attributes;
        if (!take_headed(hops, hop_length, head, attributes)) return false;
        add_route(route, static_cast<uint32_t>(head.rtnh_ifindex), head.rtnh_flags, routes);
    }
    return true;
}

bool add_routes_of(byte_span body, uint8_t family, std::vector<default_route>& routes) {
    rtmsg head = {};
    route_attributes found;
    if (!take(body, head) || !read_route_attributes(body, found)) return false;
    // The attribute has room for all numbers of tables, the field for those below 256.
    const uint32_t table = found.table != RT_TABLE_UNSPEC ? found.table : head.rtm_table;
    if (head.rtm_family != family || head.rtm_type != RTN_UNICAST || table != RT_TABLE_MAIN ||
        head.rtm_dst_len > 1 || (head.rtm_flags & RTM_F_CLONED) != 0) {
        return true;
    }
    const default_route route = {.family = family,
                                 .prefix_length = head.rtm_dst_len,
                                 .is_upper_half = head.rtm_dst_len == 1 && found.is_upper_half,
                                 .metric = found.metric};
    add_route(route, found.interface, head.rtm_flags, routes);
    return add_hops(route, found.hops, routes);
}

bool is_other_half(const default_route& one, const default_route& other) {
    return one.family == other.family && other.prefix_length == 1 &&
           one.interface == other.interface && one.is_upper_half != other.is_upper_half;
}

// --- Links ---------------------------------------------------------------------------------------

bool read_kind(byte_span information, interface_link& link) {
    return visit_attributes(information, [&](int type, byte_span value) {
        if (type == IFLA_INFO_KIND) link.kind = read_text(value);
        return true;
    });
}

bool read_link_message(byte_span body, interface_link& link) {
    ifinfomsg head = {};
    if (!take(body, head)) return false;
    link.hardware_type = head.ifi_type;
    const bool is_sound = visit_attributes(body, [&](int type, byte_span value) {
        if (type == IFLA_IFNAME) link.name = read_text(value);
        return type != IFLA_LINKINFO || read_kind(value, link);
    });
    return is_sound && !link.name.empty();
}

// The prefixes are those of the system's own connections; the kinds are the kernel's, and the
// hardware types stand in if_arp.h. ARPHRD_NONE is no sign: mobile broadband modems have it too.
bool is_vpn(const interface_link& link) {
    constexpr const char* prefixes[] = {"mirec", "tun", "ppp"};
    constexpr std::string_view kinds[] = {"tun",    "ppp",    "wireguard", "ovpn",     "ipip",
                                          "ip6tnl", "sit",    "vti",       "vti6",     "xfrm",
                                          "gre",    "gretap", "ip6gre",    "ip6gretap"};
    constexpr uint16_t hardware_types[] = {ARPHRD_PPP, ARPHRD_TUNNEL, ARPHRD_TUNNEL6,
                                           ARPHRD_SIT, ARPHRD_IPGRE,  ARPHRD_IP6GRE};
    const auto begins_name = [&](const char* prefix) { return link.name.starts_with(prefix); };
    return std::any_of(std::begin(prefixes), std::end(prefixes), begins_name) ||
           std::find(std::begin(kinds), std::end(kinds), link.kind) != std::end(kinds) ||
           std::find(std::begin(hardware_types), std::end(hardware_types), link.hardware_type) !=
               std::end(hardware_types);
}

// Both names are links of the kernel's; the older one is from the wireless extensions.
bool has_radio(const interface_link& link) {
    const std::string folder = "/sys/class/net/" + link.name + "/";
    return access((folder + "phy80211").c_str(), F_OK) == 0 ||
           access((folder + "wireless").c_str(), F_OK) == 0;
}

// --- Asking the kernel ---------------------------------------------------------------------------

// A question that has no attributes: the fixed part follows the head.
template <class Body>
struct question {
    nlmsghdr head;
    Body body;
};

template <class Body>
question<Body> make_question(uint16_t type, unsigned flags, Body body) {
    question<Body> made = {};
    made.head.nlmsg_len = sizeof made;
    made.head.nlmsg_type = type;
    made.head.nlmsg_flags = static_cast<uint16_t>(NLM_F_REQUEST | flags);
    made.head.nlmsg_seq = sequence;
    made.body = body;
    return made;
}

// Waits until there is something to receive. Returns 0 or an errno.
int wait_readable(const descriptor& kernel, steady_clock::time_point deadline) {
    while (true) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - steady_clock::now());
        if (left.count() <= 0) return ETIMEDOUT;
        pollfd event = {kernel.get(), POLLIN, 0};
        const int ready = poll(&event, 1, static_cast<int>(left.count()));
        if (ready > 0) return 0;
        if (ready < 0 && errno != EINTR) return errno;
    }
}

// Receives one datagram of the kernel's. Returns 0 or an errno.
int receive(const descriptor& kernel, steady_clock::time_point deadline,
            std::span<unsigned char> room, byte_span& datagram) {
    while (true) {
        if (const int error = wait_readable(kernel, deadline)) return error;
        sockaddr_nl sender = {};
        socklen_t sender_size = sizeof sender;
        const ssize_t length =
            recvfrom(kernel.get(), room.data(), room.size(), MSG_DONTWAIT | MSG_TRUNC,
                     reinterpret_cast<sockaddr*>(&sender), &sender_size);
        if (length < 0 && errno != EINTR && errno != EAGAIN) return errno;
        if (length < 0 || sender.nl_pid != 0) continue;  // 0 is the kernel
        if (static_cast<size_t>(length) > room.size()) return EMSGSIZE;
        datagram = room.first(static_cast<size_t>(length));
        return 0;
    }
}

// Asks a question over a socket of its own and hands each datagram of the answer to take_datagram,
// which returns like take_routes. Returns 0 or an errno.
template <class Body, class TakeDatagram>
int ask(const question<Body>& asked, steady_clock::time_point deadline,
        TakeDatagram take_datagram) {
    const descriptor kernel(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    if (!kernel.is_open()) return errno;
    if (send(kernel.get(), &asked, sizeof asked, 0) < 0) return errno;
    std::array<unsigned char, max_datagram> room;
    int result = reply_goes_on;
    while (result == reply_goes_on) {
        byte_span datagram;
        if (const int error = receive(kernel, deadline, room, datagram)) return error;
        result = take_datagram(datagram);
    }
    return result;
}

// Adds the routes of a family. Begins anew when they changed meanwhile.
int list_routes(uint8_t family, steady_clock::time_point deadline,
                std::vector<default_route>& routes) {
    rtmsg of_family = {};
    of_family.rtm_family = family;
    const auto asked = make_question(RTM_GETROUTE, NLM_F_DUMP, of_family);
    int result = EINTR;
    for (int attempt = 0; result == EINTR && attempt < max_attempts; ++attempt) {
        std::vector<default_route> listed;
        result = ask(asked, deadline,
                     [&](byte_span datagram) { return take_routes(datagram, family, listed); });
        if (result == 0) routes.insert(routes.end(), listed.begin(), listed.end());
    }
    return result;
}

int read_link(uint32_t interface, steady_clock::time_point deadline, interface_link& link) {
    ifinfomsg of_interface = {};
    of_interface.ifi_index = static_cast<int>(interface);
    const auto asked = make_question(RTM_GETLINK, 0, of_interface);
    return ask(asked, deadline, [&](byte_span datagram) { return take_link(datagram, link); });
}

int list_interfaces(std::vector<gateway_interface>& interfaces) {
    const auto deadline = steady_clock::now() + patience;
    std::vector<default_route> routes;
    for (const uint8_t family : {uint8_t{AF_INET}, uint8_t{AF_INET6}}) {
        if (const int error = list_routes(family, deadline, routes)) return error;
    }
    for (const uint32_t index : interfaces_by_preference(std::move(routes))) {
        interface_link link;
        const int error = read_link(index, deadline, link);
        if (error == ENODEV) continue;  // gone meanwhile
        if (error != 0) return error;
        interfaces.push_back({link.name, interface_type(link)});
    }
    return 0;
}

}  // namespace

int read_gateway_interfaces(std::vector<gateway_interface>& interfaces) {
    interfaces.clear();
    const int error = list_interfaces(interfaces);
    if (error != 0) interfaces.clear();
    return error;
}

int take_routes(byte_span datagram, uint8_t family, std::vector<default_route>& routes) {
    return take_messages(datagram, RTM_NEWROUTE,
                         [&](byte_span body) { return add_routes_of(body, family, routes); });
}

int take_link(byte_span datagram, interface_link& link) {
    return take_messages(datagram, RTM_NEWLINK,
                         [&](byte_span body) { return read_link_message(body, link); });
}

std::vector<uint32_t> interfaces_by_preference(std::vector<default_route> routes) {
    std::stable_sort(routes.begin(), routes.end(), is_preferred);
    std::vector<uint32_t> interfaces;
    for (const default_route& route : routes) {
        const auto completes = [&](const default_route& other) {
            return is_other_half(route, other);
        };
        const bool is_whole =
            route.prefix_length == 0 || std::any_of(routes.begin(), routes.end(), completes);
        const bool is_known =
            std::find(interfaces.begin(), interfaces.end(), route.interface) != interfaces.end();
        if (is_whole && !is_known) interfaces.push_back(route.interface);
    }
    return interfaces;
}

const char* interface_type(const interface_link& link) {
    if (is_vpn(link)) return "VPN";
    if (link.kind == "bridge") return "Bridge";
    if (has_radio(link)) return "Wireless";
    if (link.hardware_type == ARPHRD_ETHER) return "Ethernet";
    return "Other";
}
