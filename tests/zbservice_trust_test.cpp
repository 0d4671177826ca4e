// Who may talk to whom. The kernel's word about the other side is replaced, per thread, so that
// each side can be anybody for the other.
#include <grp.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <string>

#include "support/bus.h"
#include "support/lingering.h"
#include "support/other_side.h"

using namespace bus_test;

namespace {
const identity an_outsider = {stranger, their_group, {their_group, 1, 2, 3}};
const identity a_member = {stranger, deployed_group, {}};
const identity a_member_by_another_group = {stranger, their_group, {1, 2, deployed_group, 3}};

// An endpoint for whom every caller is the one given.
class endpoint_for : public endpoint {
  public:
    explicit endpoint_for(const identity& caller)
        : endpoint(echo, address, [caller] { other_side = caller; }) {}
};

// A call to an endpoint that is held by the one given.
outcome call_held_by(const identity& holder, std::string_view body = "x") {
    other_side = holder;
    outcome result = call(address, "m", body);
    other_side.reset();
    return result;
}

const outcome accepted = {0, "m:x"};
const outcome denied = {ZB_ERROR_DENIED, "x"};
const outcome untrusted = {ZB_ERROR_UNTRUSTED, "x"};

std::string group_name() { return getgrgid(0)->gr_name; }
}  // namespace

// ---- The endpoint looks at its callers ---------------------------------------------------------

TEST(trust, endpoint_accepts_root) {
    endpoint_for served({0, their_group, {}});
    EXPECT_EQ(call(address, "m", "x"), accepted);
}

TEST(trust, endpoint_accepts_its_own_user) {
    endpoint_for served({geteuid(), their_group, {}});
    EXPECT_EQ(call(address, "m", "x"), accepted);
}

TEST(trust, endpoint_refuses_others_before_it_reads_a_byte) {
    endpoint_for served(an_outsider);
    EXPECT_EQ(call(address, "m", "x"), denied);
    raw_stream silent = connect_to(address);
    EXPECT_EQ(silent.receive_all(), reply_frame(refused));
}

TEST(trust, refused_caller_with_a_large_request_hears_why) {
    endpoint_for served(an_outsider);
    const std::string body(4 << 20, 'x');
    EXPECT_EQ(call(address, "m", body), (outcome{ZB_ERROR_DENIED, body}));
}

TEST(trust, descriptors_of_a_refused_caller_are_closed) {
    endpoint_for served(an_outsider);
    channel pipe;
    EXPECT_EQ(call(address, "m", "x", timeout_s, pipe.in.get()), denied);
    pipe.in.shut();
    EXPECT_TRUE(pipe.is_hung_up());
}

TEST(trust, lingering_descriptors_of_a_refused_caller_are_waited_for_by_nobody) {
    zb_service* service = zb_create(address, 4, 1, entry);
    ASSERT_NE(service, nullptr);
    raw_stream caller = connect_to(address);
    lingering_sockets sockets(2);
    lingering_sockets urgent(1);
    ASSERT_TRUE(sockets.send_through(caller, request_frame("m", "x")));
    ASSERT_TRUE(urgent.send_through(caller, "!", MSG_OOB));
    std::thread serving([&] {
        other_side = an_outsider;
        EXPECT_EQ(zb_start(service), 0);
    });
    expect_soon([&] { EXPECT_EQ(caller.receive_all(), reply_frame(refused)); });
    expect_soon([] { EXPECT_EQ(call(address, "m", "x"), denied); });
    EXPECT_EQ(zb_stop(service), 0);
    serving.join();
    zb_free(service);
}

TEST(trust, endpoint_accepts_members_of_the_deployed_group) {
    deploy("# who may use the bus\n\n  group 4713   # by number\n");
    {
        endpoint_for served(a_member);
        EXPECT_EQ(call(address, "m", "x"), accepted);
    }
    endpoint_for served(a_member_by_another_group);
    EXPECT_EQ(call(address, "m", "x"), accepted);
}

TEST(trust, member_of_very_many_groups_is_a_member) {
    deploy("group 4713\n");
    identity member = an_outsider;
    member.groups.assign(65535, 1);
    member.groups.push_back(deployed_group);
    endpoint_for served(member);
    EXPECT_EQ(call(address, "m", "x"), accepted);
}

TEST(trust, deployed_group_does_not_admit_others) {
    deploy("group 4713\n");
    endpoint_for served(an_outsider);
    EXPECT_EQ(call(address, "m", "x"), denied);
}

TEST(trust, group_may_be_named) {
    deploy("group " + group_name() + "\n");
    endpoint_for served({stranger, 0, {}});
    EXPECT_EQ(call(address, "m", "x"), accepted);
}

TEST(trust, unusable_configuration_names_no_group_and_is_told) {
    for (const char* text : {"group\n", "group nobody-has-this-name\n", "group 4713 4714\n",
                             "grupo 4713\n", "group -1\n", "group 4294967295\n", "4713\n"}) {
        deploy(text);
        testing::internal::CaptureStderr();
        endpoint_for served(a_member);
        EXPECT_NE(testing::internal::GetCapturedStderr(), "") << text;
        EXPECT_EQ(call(address, "m", "x"), denied) << text;
    }
}

TEST(trust, user_minus_1_is_nobody) {
    endpoint_for served({static_cast<uid_t>(-1), static_cast<gid_t>(-1), {}});
    EXPECT_EQ(call(address, "m", "x"), denied);
}

// ---- The caller looks at the endpoint ----------------------------------------------------------

TEST(trust, call_accepts_an_endpoint_of_root_or_its_own_user) {
    endpoint served;
    EXPECT_EQ(call_held_by({0, their_group, {}}), accepted);
    EXPECT_EQ(call_held_by({geteuid(), their_group, {}}), accepted);
}

TEST(trust, call_sends_no_byte_to_an_endpoint_of_somebody_else) {
    std::string heard;
    event ended;
    raw_endpoint served(address, [&](raw_stream& caller) {
        heard = caller.receive_all();
        ended.set();
    });
    EXPECT_EQ(call_held_by(an_outsider), untrusted);
    ASSERT_TRUE(ended.wait());
    EXPECT_EQ(heard, "");
}

TEST(trust, call_accepts_an_endpoint_of_the_deployed_group) {
    endpoint served;
    EXPECT_EQ(call_held_by(a_member), untrusted);
    deploy("group 4713\n");
    EXPECT_EQ(call_held_by(a_member), accepted);
    EXPECT_EQ(call_held_by(a_member_by_another_group), accepted);
    EXPECT_EQ(kept_connections(), 0U);  // the group may be another one at the next call
    EXPECT_EQ(call_held_by(an_outsider), untrusted);
}
