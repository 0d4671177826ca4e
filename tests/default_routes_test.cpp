// The reader of the kernel's default routes: real routes of a network of the test's own, and bytes
// made by hand.
//
// The linker puts functions of this program in the place of recvfrom, send, socket and of the
// clock, so that it can disturb what the reader sees of the kernel.
#include "default_routes.h"

#include <gtest/gtest.h>
#include <linux/if_arp.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "support/files.h"
#include "support/network.h"

namespace {

namespace fs = std::filesystem;
using bytes = std::string;

// --- What the reader sees of the kernel ----------------------------------------------------------

int interruptions = 0;                    // answers still to be marked as interrupted
int questions = 0;                        // sockets that were made
int datagrams = 0;                        // received
bool is_question_lost = false;            // the kernel never gets it
bool is_socket_refused = false;           // there are no descriptors left
std::chrono::milliseconds clock_step{0};  // by which the clock leaps whenever it is read
std::chrono::milliseconds clock_lead{0};

void mark_interrupted(void* datagram) {
    auto* head = static_cast<nlmsghdr*>(datagram);
    if (interruptions == 0) return;
    --interruptions;
    head->nlmsg_flags |= NLM_F_DUMP_INTR;
}

}  // namespace

extern "C" {
ssize_t __real_recvfrom(int fd, void* room, size_t size, int flags, sockaddr* from,
                        socklen_t* length);
ssize_t __wrap_recvfrom(int fd, void* room, size_t size, int flags, sockaddr* from,
                        socklen_t* length) {
    const ssize_t result = __real_recvfrom(fd, room, size, flags, from, length);
    ++datagrams;
    if (result > 0) mark_interrupted(room);
    return result;
}
// The same function, as hardened builds name it.
ssize_t __wrap___recvfrom_chk(int fd, void* room, size_t size, size_t /*room_size*/, int flags,
                              sockaddr* from, socklen_t* length) {
    return __wrap_recvfrom(fd, room, size, flags, from, length);
}
int __real_socket(int domain, int type, int protocol);
int __wrap_socket(int domain, int type, int protocol) {
    ++questions;
    if (!is_socket_refused) return __real_socket(domain, type, protocol);
    errno = EMFILE;
    return -1;
}
ssize_t __real_send(int fd, const void* data, size_t size, int flags);
ssize_t __wrap_send(int fd, const void* data, size_t size, int flags) {
    return is_question_lost ? static_cast<ssize_t>(size) : __real_send(fd, data, size, flags);
}
}

using steady_point = std::chrono::steady_clock::time_point;
steady_point real_now() __asm__("__real__ZNSt6chrono3_V212steady_clock3nowEv");
steady_point stepping_now() __asm__("__wrap__ZNSt6chrono3_V212steady_clock3nowEv");
steady_point stepping_now() {
    clock_lead += clock_step;
    return real_now() + clock_lead;
}

namespace {

// --- Real routes ---------------------------------------------------------------------------------

class default_routes : public testing::Test {
  protected:
    void SetUp() override {
        make_interface("tun2001");
        make_interface("wan0");
        ip("link set lo up");
    }

    // "TYPE NAME, TYPE NAME".
    static std::string listed() {
        std::vector<gateway_interface> interfaces;
        const int error = read_gateway_interfaces(interfaces);
        if (error != 0) return strerror(error);
        std::string text;
        for (const gateway_interface& interface : interfaces) {
            text += (text.empty() ? "" : ", ") + std::string(interface.type) + " " + interface.name;
        }
        return text;
    }
};

TEST_F(default_routes, none_is_an_empty_list) {
    ip("route add 10.0.0.0/8 dev wan0");
    ip("-6 route add 2001:db8::/32 dev wan0");
    EXPECT_EQ(listed(), "");
}

TEST_F(default_routes, device_and_gateway_both_count) {
    ip("route add default dev tun2001");
    EXPECT_EQ(listed(), "VPN tun2001");
    ip("route del default");
    ip("address add 10.1.0.1/24 dev wan0");
    ip("route add default via 10.1.0.2");
    EXPECT_EQ(listed(), "Ethernet wan0");
}

TEST_F(default_routes, lowest_metric_comes_first) {
    ip("route add default dev wan0 metric 20");
    ip("route add default dev tun2001 metric 3");
    EXPECT_EQ(listed(), "VPN tun2001, Ethernet wan0");
    ip("route add default dev peer_wan0 metric 10");
    EXPECT_EQ(listed(), "VPN tun2001, Ethernet peer_wan0, Ethernet wan0");
    ip("route add default dev wan0");
    EXPECT_EQ(listed(), "Ethernet wan0, VPN tun2001, Ethernet peer_wan0");
    ip("route add default dev tun2001 metric 4294967295");
    EXPECT_EQ(listed(), "Ethernet wan0, VPN tun2001, Ethernet peer_wan0");
}

TEST_F(default_routes, ipv4_comes_before_ipv6) {
    ip("-6 route add default dev tun2001 metric 1");
    EXPECT_EQ(listed(), "VPN tun2001");
    ip("route add default dev wan0 metric 4000");
    ip("-6 route add default dev wan0 metric 2");
    EXPECT_EQ(listed(), "Ethernet wan0, VPN tun2001");
}

TEST_F(default_routes, each_hop_of_a_multipath_route_counts) {
    ip("route add default metric 9 nexthop dev tun2001 nexthop dev wan0");
    EXPECT_EQ(listed(), "VPN tun2001, Ethernet wan0");
    ip("route flush table main");
    ip("-6 address add 2001:db8:1::1/64 dev wan0 nodad");
    ip("-6 address add 2001:db8:2::1/64 dev tun2001 nodad");
    ip("-6 route add default nexthop via 2001:db8:1::2 nexthop via 2001:db8:2::2");
    EXPECT_EQ(listed(), "Ethernet wan0, VPN tun2001");
}

TEST_F(default_routes, nexthop_object_counts) {
    ip("nexthop add id 1 dev wan0");
    ip("route add default nhid 1");
    EXPECT_EQ(listed(), "Ethernet wan0");
}

TEST_F(default_routes, routes_that_refuse_do_not_count) {
    ip("route add blackhole default metric 1");
    ip("route add unreachable default metric 2");
    ip("route add prohibit default metric 3");
    ip("-6 route add blackhole default metric 1");
    ip("-6 route add unreachable default metric 2");
    EXPECT_EQ(listed(), "");
    ip("route add default dev wan0 metric 4");
    EXPECT_EQ(listed(), "Ethernet wan0");
}

TEST_F(default_routes, only_the_main_table_counts) {
    ip("rule add priority 100 table 300");
    ip("route add default dev tun2001 table 300");
    ip("route add default dev tun2001 table 55");
    ip("route add default dev tun2001 table default");
    ip("-6 route add default dev tun2001 table 300");
    EXPECT_EQ(listed(), "");
    ip("route add default dev wan0");
    EXPECT_EQ(listed(), "Ethernet wan0");
}

TEST_F(default_routes, two_halves_over_one_interface_come_first) {
    ip("route add default dev wan0");
    ip("route add 0.0.0.0/1 dev tun2001 metric 50");
    EXPECT_EQ(listed(), "Ethernet wan0");
    ip("route add 128.0.0.0/1 dev peer_wan0");
    EXPECT_EQ(listed(), "Ethernet wan0");
    ip("route add 128.0.0.0/1 dev tun2001 metric 50");
    EXPECT_EQ(listed(), "VPN tun2001, Ethernet wan0");
    ip("route flush table main");
    ip("-6 route add ::/1 dev tun2001");
    EXPECT_EQ(listed(), "");
    ip("-6 route add 8000::/1 dev tun2001");
    EXPECT_EQ(listed(), "VPN tun2001");
    ip("route add 0.0.0.0/2 dev wan0");
    ip("route add 64.0.0.0/2 dev wan0");
    EXPECT_EQ(listed(), "VPN tun2001");
}

TEST_F(default_routes, interface_without_a_line_keeps_its_route) {
    ip("route add default dev wan0");
    ip("link set peer_wan0 down");
    EXPECT_EQ(listed(), "Ethernet wan0");
    ip("link set wan0 down");
    EXPECT_EQ(listed(), "");
}

TEST_F(default_routes, name_is_the_one_of_the_moment) {
    ip("route add default dev wan0");
    ip("link set wan0 down");
    ip("link set wan0 name ppp1003");
    ip("link set ppp1003 up");
    ip("route add default dev ppp1003");
    EXPECT_EQ(listed(), "VPN ppp1003");
}

TEST_F(default_routes, radio_makes_an_interface_wireless) {
    ip("route add default dev wan0");
    for (const char* sign : {"phy80211", "wireless"}) {
        fs::create_directories(std::string("/sys/class/net/wan0/") + sign);
        EXPECT_EQ(listed(), "Wireless wan0");
        fs::remove_all("/sys");
    }
}

TEST_F(default_routes, long_list_comes_in_several_parts) {
    std::string batch = "route add default dev wan0\n";
    for (int n = 0; n < 3000; ++n) {
        batch += "route add 10." + std::to_string(n / 250) + "." + std::to_string(n % 250) +
                 ".0/24 dev tun2001\n";
    }
    write_file("/tmp/batch", batch);
    ip("-batch /tmp/batch");
    ip("-6 route add default dev tun2001");
    datagrams = 0;
    EXPECT_EQ(listed(), "Ethernet wan0, VPN tun2001");
    EXPECT_GT(datagrams, 6);
}

TEST_F(default_routes, interrupted_list_is_read_anew) {
    ip("route add default dev wan0");
    for (const int count : {1, 4}) {
        interruptions = count;
        questions = 0;
        EXPECT_EQ(listed(), "Ethernet wan0");
        EXPECT_EQ(questions, count + 3);  // two families and a link
    }
    interruptions = 5;
    EXPECT_EQ(listed(), strerror(EINTR));
    EXPECT_EQ(interruptions, 0);
    EXPECT_EQ(listed(), "Ethernet wan0");
}

TEST_F(default_routes, waiting_ends) {
    ip("route add default dev wan0");
    is_question_lost = true;
    clock_step = std::chrono::milliseconds(2990);
    EXPECT_EQ(listed(), strerror(ETIMEDOUT));
    is_question_lost = false;
    clock_step = {};
    EXPECT_EQ(listed(), "Ethernet wan0");
}

TEST_F(default_routes, failure_leaves_an_empty_list) {
    std::vector<gateway_interface> interfaces = {{"old", "Other"}};
    is_socket_refused = true;
    EXPECT_EQ(read_gateway_interfaces(interfaces), EMFILE);
    EXPECT_TRUE(interfaces.empty());
}

TEST_F(default_routes, keeps_no_descriptor) {
    ip("route add default dev wan0");
    const auto open_count = [] {
        return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    };
    const auto before = open_count();
    for (int n = 0; n < 10; ++n) (void)listed();
    interruptions = 5;
    (void)listed();
    EXPECT_EQ(open_count(), before);
}

// --- Bytes made by hand --------------------------------------------------------------------------

template <class T>
bytes raw(const T& value) {
    return {reinterpret_cast<const char*>(&value), sizeof value};
}

bytes padded(bytes text) {
    text.resize((text.size() + 3) / 4 * 4);
    return text;
}

bytes attribute(unsigned type, const bytes& value) {
    const rtattr head = {static_cast<unsigned short>(sizeof(rtattr) + value.size()),
                         static_cast<unsigned short>(type)};
    return padded(raw(head) + value);
}
bytes attribute(unsigned type, uint32_t value) { return attribute(type, raw(value)); }

bytes message(unsigned type, const bytes& body, unsigned flags = NLM_F_MULTI,
              uint32_t sequence = 1) {
    nlmsghdr head = {};
    head.nlmsg_len = static_cast<uint32_t>(sizeof head + body.size());
    head.nlmsg_type = static_cast<uint16_t>(type);
    head.nlmsg_flags = static_cast<uint16_t>(flags);
    head.nlmsg_seq = sequence;
    return padded(raw(head) + body);
}

rtmsg route_head(uint8_t prefix_length = 0) {
    rtmsg head = {};
    head.rtm_family = AF_INET;
    head.rtm_dst_len = prefix_length;
    head.rtm_table = RT_TABLE_MAIN;
    head.rtm_type = RTN_UNICAST;
    return head;
}

bytes route(const bytes& attributes, rtmsg head = route_head()) {
    return message(RTM_NEWROUTE, raw(head) + attributes);
}

bytes hop(uint32_t interface, const bytes& attributes = "", uint8_t flags = 0) {
    rtnexthop head = {};
    head.rtnh_len = static_cast<unsigned short>(sizeof head + attributes.size());
    head.rtnh_flags = flags;
    head.rtnh_ifindex = static_cast<int>(interface);
    return raw(head) + attributes;
}

const bytes done = message(NLMSG_DONE, raw(int32_t{0}));
bytes failure(int32_t error) { return message(NLMSG_ERROR, raw(error) + bytes(16, '\0'), 0); }

// The bytes in memory of their very size, so that a sanitizer sees a look past their end.
template <class Take>
int taken(const bytes& datagram, Take take) {
    const std::vector<unsigned char> exact(datagram.begin(), datagram.end());
    return take(byte_span(exact));
}

struct routes_taken {
    int result;
    std::vector<default_route> routes;
};
routes_taken routes_of(const bytes& datagram) {
    routes_taken all = {};
    all.result =
        taken(datagram, [&](byte_span span) { return take_routes(span, AF_INET, all.routes); });
    return all;
}

// The interfaces of the routes in a datagram that is sound.
std::vector<uint32_t> interfaces_of(const bytes& datagram) {
    const routes_taken all = routes_of(datagram);
    EXPECT_EQ(all.result, reply_goes_on);
    std::vector<uint32_t> interfaces;
    for (const default_route& route : all.routes) interfaces.push_back(route.interface);
    return interfaces;
}

using indexes = std::vector<uint32_t>;

TEST(route_bytes, route_is_taken) {
    const routes_taken all = routes_of(
        route(attribute(RTA_OIF, 7) + attribute(RTA_PRIORITY, 0xfffffffe) +
              attribute(RTA_TABLE, RT_TABLE_MAIN) + attribute(RTA_GATEWAY, 0x0100007f)) +
        route(attribute(RTA_DST, bytes("\x80\0\0\0", 4)) + attribute(RTA_OIF, 8), route_head(1)) +
        done);
    EXPECT_EQ(all.result, 0);
    const std::vector<default_route> expected = {
        {.family = AF_INET, .metric = 0xfffffffe, .interface = 7},
        {.family = AF_INET, .prefix_length = 1, .is_upper_half = true, .interface = 8}};
    EXPECT_EQ(all.routes, expected);
}

TEST(route_bytes, order_of_attributes_does_not_matter) {
    EXPECT_EQ(interfaces_of(route(attribute(RTA_PRIORITY, 1) + attribute(RTA_OIF, 7) +
                                  attribute(RTA_TABLE, RT_TABLE_MAIN))),
              indexes{7});
    EXPECT_EQ(interfaces_of(route(attribute(RTA_TABLE, RT_TABLE_MAIN) + attribute(RTA_OIF, 7) +
                                  attribute(RTA_PRIORITY, 1))),
              indexes{7});
}

TEST(route_bytes, routes_that_are_no_default_are_passed_over) {
    const bytes device = attribute(RTA_OIF, 7);
    const auto with = [&](auto member, auto value) {
        rtmsg head = route_head();
        head.*member = static_cast<std::remove_reference_t<decltype(head.*member)>>(value);
        return route(device, head);
    };
    const bytes others[] = {
        with(&rtmsg::rtm_family, AF_INET6),
        with(&rtmsg::rtm_dst_len, 2),
        with(&rtmsg::rtm_dst_len, 32),
        with(&rtmsg::rtm_table, RT_TABLE_LOCAL),
        with(&rtmsg::rtm_table, RT_TABLE_DEFAULT),
        with(&rtmsg::rtm_type, RTN_BLACKHOLE),
        with(&rtmsg::rtm_type, RTN_UNREACHABLE),
        with(&rtmsg::rtm_type, RTN_LOCAL),
        with(&rtmsg::rtm_flags, RTM_F_CLONED),
        with(&rtmsg::rtm_flags, RTNH_F_DEAD),
        route(""),
        route(attribute(RTA_OIF, uint32_t{0})),
        route(device + attribute(RTA_TABLE, 510)),  // 254 in its lowest byte is the field's
        route(device + attribute(RTA_TABLE, 0x1fe)),
        message(RTM_DELROUTE, raw(route_head()) + device),
        message(RTM_NEWLINK, raw(route_head()) + device),
        message(RTM_NEWROUTE, raw(route_head()) + device, NLM_F_MULTI, 2),  // another question's
        message(NLMSG_NOOP, ""),
    };
    for (const bytes& other : others) EXPECT_EQ(interfaces_of(other), indexes());
    EXPECT_EQ(interfaces_of(with(&rtmsg::rtm_flags, RTNH_F_LINKDOWN)), indexes{7});
}

TEST(route_bytes, number_of_a_table_is_the_attributes) {
    rtmsg head = route_head();
    head.rtm_table = RT_TABLE_COMPAT;
    const bytes device = attribute(RTA_OIF, 7);
    EXPECT_EQ(interfaces_of(route(device + attribute(RTA_TABLE, RT_TABLE_MAIN), head)), indexes{7});
    EXPECT_EQ(interfaces_of(route(device, head)), indexes());
}

TEST(route_bytes, hops_are_taken) {
    const bytes hops = hop(3, attribute(RTA_GATEWAY, 1)) + hop(0) + hop(4, "", RTNH_F_DEAD) +
                       hop(5, "", RTNH_F_LINKDOWN);
    EXPECT_EQ(interfaces_of(route(attribute(RTA_MULTIPATH, hops))), (indexes{3, 5}));
}

TEST(route_bytes, no_more_than_256_are_taken) {
    bytes hops;
    for (uint32_t n = 1; n <= 300; ++n) hops += hop(n);
    const bytes many = route(attribute(RTA_PRIORITY, 5) + attribute(RTA_MULTIPATH, hops));
    const indexes interfaces =
        interfaces_of(many + route(attribute(RTA_PRIORITY, 5) + attribute(RTA_OIF, 1000)));
    EXPECT_EQ(interfaces.size(), 256U);
    EXPECT_EQ(interfaces.back(), 256U);
    const indexes with_better =
        interfaces_of(many + route(attribute(RTA_PRIORITY, 4) + attribute(RTA_OIF, 1000)));
    EXPECT_EQ(with_better.size(), 256U);
    EXPECT_EQ(with_better[254], 255U);
    EXPECT_EQ(with_better[255], 1000U);
}

struct ending {
    const char* name;
    bytes datagram;
    int result;
};

TEST(route_bytes, answer_ends_as_the_kernel_says) {
    const bytes one = route(attribute(RTA_OIF, 7));
    const ending cases[] = {
        {"nothing", "", reply_goes_on},
        {"a part", one, reply_goes_on},
        {"the end of the list", one + done, 0},
        {"an end without a number", message(NLMSG_DONE, ""), 0},
        {"an end that tells an error", message(NLMSG_DONE, raw(int32_t{-ENOMEM})), ENOMEM},
        {"another question's end", message(NLMSG_DONE, raw(int32_t{0}), NLM_F_MULTI, 9),
         reply_goes_on},
        {"what follows the end", done + message(NLMSG_ERROR, raw(int32_t{-EPERM})), 0},
        {"an answer of one part", message(RTM_NEWROUTE, raw(route_head()), 0), 0},
        {"an error", failure(-EOPNOTSUPP), EOPNOTSUPP},
        {"an acknowledgement", failure(0), 0},
        {"an error that is none", failure(5), EBADMSG},
        {"an error that has no counterpart", failure(INT32_MIN), EBADMSG},
        {"an error without a number", message(NLMSG_ERROR, "abc"), EBADMSG},
        {"an overrun", message(NLMSG_OVERRUN, ""), ENOBUFS},
        {"an interruption", message(RTM_NEWROUTE, raw(route_head()), NLM_F_MULTI | NLM_F_DUMP_INTR),
         EINTR},
        {"an interruption at the end",
         one + message(NLMSG_DONE, raw(int32_t{0}), NLM_F_MULTI | NLM_F_DUMP_INTR), EINTR},
    };
    for (const ending& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(routes_of(c.datagram).result, c.result);
    }
}

// The datagram with another number of two bytes at a place.
bytes with_number(bytes datagram, size_t at, uint16_t number) {
    memcpy(datagram.data() + at, &number, sizeof number);
    return datagram;
}

TEST(route_bytes, lengths_that_lie_are_refused) {
    constexpr size_t first_attribute = sizeof(nlmsghdr) + sizeof(rtmsg);
    const bytes one = route(attribute(RTA_OIF, 7));
    const bytes hops = route(attribute(RTA_MULTIPATH, hop(3) + hop(4)));
    const bytes cases[] = {
        one.substr(0, sizeof(nlmsghdr) - 1),
        one.substr(0, sizeof(nlmsghdr)),
        one.substr(0, one.size() - 4),
        one + "abc",
        with_number(one, 0, 0),
        with_number(one, 0, sizeof(nlmsghdr) - 1),
        with_number(one, 0, sizeof(nlmsghdr)),
        with_number(one, 0, sizeof(nlmsghdr) + sizeof(rtmsg) - 1),
        with_number(one, 0, static_cast<uint16_t>(one.size() + 1)),
        with_number(one, 0, 0xffff),
        with_number(one, 2, 0xffff),  // the upper half of the length
        with_number(one, first_attribute, 0),
        with_number(one, first_attribute, sizeof(rtattr) - 1),
        with_number(one, first_attribute, sizeof(rtattr) + 5),
        with_number(one, first_attribute, 0xffff),
        route("abc"),
        route(attribute(RTA_OIF, "\x07")),
        route(attribute(RTA_PRIORITY, "")),
        route(attribute(RTA_TABLE, "abc")),
        route(attribute(RTA_DST, "")),
        with_number(hops, first_attribute + sizeof(rtattr), 0),
        with_number(hops, first_attribute + sizeof(rtattr), sizeof(rtnexthop) - 1),
        with_number(hops, first_attribute + sizeof(rtattr), 2 * sizeof(rtnexthop) + 1),
        route(attribute(RTA_MULTIPATH, hop(3) + "abcd")),
    };
    for (const bytes& datagram : cases) {
        SCOPED_TRACE(testing::PrintToString(datagram));
        EXPECT_EQ(routes_of(datagram).result, EBADMSG);
    }
}

// --- Links ---------------------------------------------------------------------------------------

bytes link_message(const bytes& attributes, uint16_t hardware_type = ARPHRD_ETHER) {
    ifinfomsg head = {};
    head.ifi_type = hardware_type;
    return message(RTM_NEWLINK, raw(head) + attributes, 0);
}

bytes kind(const bytes& word) {
    return attribute(IFLA_LINKINFO | NLA_F_NESTED, attribute(IFLA_INFO_KIND, word));
}

int take_link_of(const bytes& datagram, interface_link& link) {
    return taken(datagram, [&](byte_span span) { return take_link(span, link); });
}

TEST(link_bytes, name_kind_and_hardware_type_are_taken) {
    interface_link link;
    EXPECT_EQ(take_link_of(link_message(attribute(IFLA_MTU, 1500) + kind(bytes("veth\0", 5)) +
                                        attribute(IFLA_IFNAME, bytes("tun2001\0", 8))),
                           link),
              0);
    EXPECT_EQ(link.name, "tun2001");
    EXPECT_EQ(link.kind, "veth");
    EXPECT_EQ(link.hardware_type, ARPHRD_ETHER);
}

TEST(link_bytes, text_ends_with_its_attribute_or_before) {
    const std::pair<bytes, std::string> cases[] = {{"eth0", "eth0"},
                                                   {bytes("eth0\0", 5), "eth0"},
                                                   {bytes("et\0h0", 5), "et"},
                                                   {"\xff", "\xff"},
                                                   {bytes(3000, 'x'), std::string(3000, 'x')}};
    for (const auto& [value, name] : cases) {
        interface_link link;
        EXPECT_EQ(take_link_of(link_message(attribute(IFLA_IFNAME, value) + kind(value)), link), 0);
        EXPECT_EQ(link.name, name);
        EXPECT_EQ(link.kind, name);
    }
}

TEST(link_bytes, malformed_ones_are_refused) {
    const bytes name = attribute(IFLA_IFNAME, "eth0");
    const bytes cases[] = {
        link_message(""),
        link_message(attribute(IFLA_IFNAME, "")),
        link_message(attribute(IFLA_IFNAME, bytes(1, '\0'))),
        link_message(name + attribute(IFLA_LINKINFO, "ab")),
        link_message(name + attribute(IFLA_LINKINFO, bytes("\xff\xff\1\0", 4))),
        message(RTM_NEWLINK, bytes(sizeof(ifinfomsg) - 1, '\0'), 0),
    };
    for (const bytes& datagram : cases) {
        interface_link link;
        EXPECT_EQ(take_link_of(datagram, link), EBADMSG);
    }
}

TEST(link_bytes, missing_interface_is_told) {
    interface_link link;
    EXPECT_EQ(take_link_of(failure(-ENODEV), link), ENODEV);
}

// Whatever byte is wrong and wherever the datagram ends, the result is one of those told.
TEST(link_bytes, any_damage_is_contained) {
    const bytes sound[] = {
        route(attribute(RTA_TABLE, RT_TABLE_MAIN) + attribute(RTA_OIF, 7)) +
            route(attribute(RTA_MULTIPATH, hop(3, attribute(RTA_GATEWAY, 1)) + hop(4))) + done,
        link_message(attribute(IFLA_IFNAME, "eth0") + kind("tun"), ARPHRD_NONE), failure(-ENODEV)};
    const auto try_out = [](const bytes& datagram) {
        interface_link link;
        for (const int result : {routes_of(datagram).result, take_link_of(datagram, link)}) {
            EXPECT_GE(result, reply_goes_on);
        }
    };
    for (const bytes& datagram : sound) {
        for (size_t end = 0; end <= datagram.size(); ++end) try_out(datagram.substr(0, end));
        for (size_t at = 0; at < datagram.size(); ++at) {
            for (int value = 0; value < 256; ++value) {
                bytes damaged = datagram;
                damaged[at] = static_cast<char>(value);
                try_out(damaged);
            }
        }
    }
}

// --- Order and types -----------------------------------------------------------------------------

TEST(preference, orders_and_names_once) {
    const auto v4 = [](uint32_t interface, uint32_t metric) {
        return default_route{.family = AF_INET, .metric = metric, .interface = interface};
    };
    const auto v6 = [](uint32_t interface, uint32_t metric) {
        return default_route{.family = AF_INET6, .metric = metric, .interface = interface};
    };
    const auto half = [](uint32_t interface, bool is_upper, uint32_t metric, uint8_t family) {
        return default_route{.family = family,
                             .prefix_length = 1,
                             .is_upper_half = is_upper,
                             .metric = metric,
                             .interface = interface};
    };
    struct {
        std::vector<default_route> routes;
        indexes interfaces;
    } const cases[] = {
        {{}, {}},
        {{v4(1, 5), v4(2, 5), v4(3, 0)}, {3, 1, 2}},
        {{v6(1, 0), v4(2, 9), v6(2, 0), v4(2, 1), v6(3, 0)}, {2, 1, 3}},
        {{v4(1, 0), half(2, false, 9, AF_INET), half(2, true, 8, AF_INET)}, {2, 1}},
        {{half(2, false, 0, AF_INET), half(3, true, 0, AF_INET)}, {}},
        {{half(2, false, 0, AF_INET), half(2, true, 0, AF_INET6)}, {}},
        {{half(2, true, 0, AF_INET), half(2, true, 1, AF_INET)}, {}},
        {{half(2, true, 0, AF_INET), v4(2, 1)}, {2}},
    };
    for (const auto& c : cases) EXPECT_EQ(interfaces_by_preference(c.routes), c.interfaces);
}

TEST(interface_type, tells_by_name_kind_and_hardware) {
    struct {
        interface_link link;
        std::string_view type;
    } const cases[] = {
        {{"tun2001", "veth", ARPHRD_ETHER}, "VPN"},
        {{"ppp0", "", ARPHRD_ETHER}, "VPN"},
        {{"mirec2500", "", ARPHRD_NONE}, "VPN"},
        {{"tun", "bridge", ARPHRD_ETHER}, "VPN"},
        {{"office", "tun", ARPHRD_NONE}, "VPN"},
        {{"tap0", "tun", ARPHRD_ETHER}, "VPN"},
        {{"wg0", "wireguard", ARPHRD_NONE}, "VPN"},
        {{"t0", "ipip", ARPHRD_TUNNEL}, "VPN"},
        {{"t0", "ip6gretap", ARPHRD_ETHER}, "VPN"},
        {{"dial", "", ARPHRD_PPP}, "VPN"},
        {{"t0", "", ARPHRD_TUNNEL6}, "VPN"},
        {{"t0", "", ARPHRD_IP6GRE}, "VPN"},
        {{"br0", "bridge", ARPHRD_ETHER}, "Bridge"},
        {{"eth0", "", ARPHRD_ETHER}, "Ethernet"},
        {{"eth0.5", "vlan", ARPHRD_ETHER}, "Ethernet"},
        {{"bond0", "bond", ARPHRD_ETHER}, "Ethernet"},
        {{"xtun0", "veth", ARPHRD_ETHER}, "Ethernet"},
        {{"Tun0", "tuna", ARPHRD_ETHER}, "Ethernet"},
        {{"pp", "", ARPHRD_ETHER}, "Ethernet"},
        {{"wwan0", "", ARPHRD_NONE}, "Other"},
        {{"lo", "", ARPHRD_LOOPBACK}, "Other"},
        {{"ib0", "", ARPHRD_INFINIBAND}, "Other"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.link.name + " " + c.link.kind);
        EXPECT_EQ(interface_type(c.link), c.type);
    }
}

}  // namespace
