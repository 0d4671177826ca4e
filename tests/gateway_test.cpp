// The gateway rules and the vocabulary of VPN connections, with the options file, a network service
// on the real bus and a recording notifier.
#include "global_options.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <filesystem>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "support/files.h"
#include "support/vpn_options.h"

using namespace vpn_options;
using ravo::GlobalConfig;
using ravo::TYPE;
using texts = std::vector<std::string>;

namespace {

constexpr TYPE every_type[] = {
    ravo::NONE_TYPE,        ravo::PPTP_SERVER_TYPE,   ravo::L2TP_SERVER_TYPE,
    ravo::OVPN_SERVER_TYPE, ravo::TESSEL_SERVER_TYPE, ravo::PPTP_CLIENT_TYPE,
    ravo::L2TP_CLIENT_TYPE, ravo::OVPN_CLIENT_TYPE,   ravo::TESSEL_CLIENT_TYPE,
};

// A TYPE as a file may hold it, also a number that is no kind of connection.
TYPE type_of(int number) { return static_cast<TYPE>(number); }

}  // namespace

// --- Vocabulary ---------------------------------------------------------------------------------

TEST(vocabulary, types_have_these_numbers_in_16_bits) {
    static_assert(sizeof(TYPE) == 2 && std::is_same_v<std::underlying_type_t<TYPE>, uint16_t>);
    const int numbers[] = {0, 1, 2, 4, 16, 256, 512, 1024, 4096};
    ASSERT_EQ(std::size(numbers), std::size(every_type));
    for (size_t n = 0; n < std::size(numbers); ++n) EXPECT_EQ(every_type[n], numbers[n]);
}

TEST(vocabulary, error_codes_are_numbered_in_this_order) {
    using namespace ravo;
    const ERROR_CODE codes[] = {
        NO_ERROR,
        ERR_GENERAL,
        ERR_NO_TYPE,
        ERR_WRONG_TYPE,
        ERR_WRONG_ACTION,
        ERR_UNKNOWN_OPTION,
        ERR_DUPLICATE_OPTION,
        ERR_REGULAR_FILE,
        ERR_NOT_SUPPORT,
        ERR_VALUE,
        ERR_MAX_CONFIGS,
        ERR_HOST_LENGTH,
        ERR_MASK_LENGTH,
        ERR_NAME_LENGTH,
        ERR_USER_LENGTH,
        ERR_PASS_LENGTH,
        ERR_ENCRYPTION,
        ERR_AUTHENTICATION,
        ERR_PORT_NUMBER,
        ERR_PROTOCOL_TYPE,
        ERR_EXECUTABLE,
        ERR_URL_LENGTH,
        ERR_META_LENGTH,
        ERR_OPENVPN_CLIENT,
        ERR_OPENVPN_CA,
        ERR_OPENVPN_KEY,
        ERR_OPENVPN_CERT,
        ERR_OPENVPN_TLS_AUTH,
        ERR_OPENVPN_SECRET,
        ERR_OPENVPN_CRL_VERIFY,
        ERR_CONFIGURE_INDEX,
        ERR_SAVE_FILE,
        ERR_BACKGROUND_PROCESS,
        ERR_KILL_PROCESS,
        ERR_SAVE_CONFIG,
        ERR_API_NOT_FOUND,
        ERR_MISS_OPTION,
        ERR_SESSION_USER,
        ERR_SESSION_PASS,
        ERR_SESSION_FAIL,
        ERR_SESSION_AUTH_FAIL,
        ERR_NOT_ADMIN_SESSION,
        ERR_QUERY_LOG_FAIL,
        ERR_CONFIGURATION_FULL,
        ERR_IP_POOL_CONFLICT,
        ERR_ACCESS,
        ERR_ZB_IO_FAILED,
        ERR_ZB_CALL_FAILED,
        ERR_ZB_API_RET_ERROR,
        ERR_WRONG_JSON_FORMAT,
        ERR_CURL_FAIL,
        ERR_TESSEL_CLIENT_DUPLICATE,
    };
    ASSERT_EQ(std::size(codes), 52U);
    for (int n = 0; n < 52; ++n) EXPECT_EQ(static_cast<int>(codes[n]), n);
}

TEST(vocabulary, client_types_have_short_and_display_names_and_no_other_has) {
    for (const TYPE type : every_type) {
        if (type >= ravo::PPTP_CLIENT_TYPE) continue;
        EXPECT_EQ(ravo::typeindex_to_sname(type, 1), "") << type;
        EXPECT_EQ(ravo::type_to_string(type), "") << type;
    }
    for (const int odd : {3, 255, 257, 768, 1023, 1025, 1280, 2048, 5888, 8192, 65535}) {
        EXPECT_EQ(ravo::typeindex_to_sname(type_of(odd), 1), "") << odd;
        EXPECT_EQ(ravo::type_to_string(type_of(odd)), "") << odd;
    }
    struct {
        TYPE type;
        std::string stem;
        std::string display;
    } const clients[] = {
        {ravo::PPTP_CLIENT_TYPE, "PPTP_CLIENT", "PPTP"},
        {ravo::L2TP_CLIENT_TYPE, "L2TP_CLIENT", "L2TP/IPSec"},
        {ravo::OVPN_CLIENT_TYPE, "OPENVPN_CLIENT", "OpenVPN"},
        {ravo::TESSEL_CLIENT_TYPE, "TESSEL_CLIENT", "Tessel"},
    };
    for (const auto& c : clients) {
        EXPECT_EQ(ravo::type_to_string(c.type), c.display);
        for (const int index : {0, 3, 10, -1, INT_MAX, INT_MIN}) {
            EXPECT_EQ(ravo::typeindex_to_sname(c.type, index), c.stem + std::to_string(index));
        }
    }
    EXPECT_EQ(ravo::typeindex_to_sname(ravo::OVPN_CLIENT_TYPE, 3), "OPENVPN_CLIENT3");
    EXPECT_EQ(ravo::typeindex_to_sname(ravo::PPTP_CLIENT_TYPE, INT_MIN), "PPTP_CLIENT-2147483648");
}

TEST(vocabulary, interval_codes_have_texts) {
    struct {
        int code;
        const char* text;
    } const cases[] = {
        {-1, "Not"}, {0, "immediatly"}, {1, "1"}, {5, "5"},      {10, "10"},    {-2, ""},
        {2, ""},     {3, ""},           {4, ""},  {6, ""},       {9, ""},       {11, ""},
        {50, ""},    {100, ""},         {-5, ""}, {INT_MAX, ""}, {INT_MIN, ""},
    };
    for (const auto& c : cases) EXPECT_EQ(ravo::interval_to_string(c.code), c.text) << c.code;
}

// --- Interface names ----------------------------------------------------------------------------

namespace {

struct connection {
    TYPE type;
    int index;
    bool operator==(const connection&) const = default;
};

std::ostream& operator<<(std::ostream& out, const connection& c) {
    return out << "type " << c.type << ", index " << c.index;
}

connection connection_of(const std::string& ifname, int index = 77) {
    connection c = {ravo::L2TP_SERVER_TYPE, index};
    ravo::ifname_to_typeindex(ifname, c.type, c.index);
    return c;
}

constexpr connection no_client = {ravo::NONE_TYPE, 0};
constexpr connection pptp(int index) { return {ravo::PPTP_CLIENT_TYPE, index}; }
constexpr connection l2tp(int index) { return {ravo::L2TP_CLIENT_TYPE, index}; }
constexpr connection ovpn(int index) { return {ravo::OVPN_CLIENT_TYPE, index}; }
constexpr connection tessel(int index) { return {ravo::TESSEL_CLIENT_TYPE, index}; }

const struct {
    int number;
    connection wanted;
} borders[] = {
    {0, no_client},
    {1, no_client},
    {-1, no_client},
    {999, no_client},
    {-999, no_client},
    {1000, pptp(0)},
    {-1000, pptp(0)},
    {1001, pptp(1)},
    {-1001, pptp(-1)},
    {1249, pptp(249)},
    {-1249, pptp(-249)},
    {1250, l2tp(0)},
    {-1250, l2tp(0)},
    {1251, l2tp(1)},
    {1999, l2tp(749)},
    {-1999, l2tp(-749)},
    {2000, ovpn(0)},
    {-2000, ovpn(0)},
    {2001, ovpn(1)},
    {2499, ovpn(499)},
    {-2499, ovpn(-499)},
    {2500, tessel(0)},
    {-2500, tessel(0)},
    {2501, tessel(1)},
    {-2501, tessel(-1)},
    {4999, tessel(2499)},
    {-4999, tessel(-2499)},
    {5000, tessel(0)},
    {-5000, tessel(0)},
    {5001, tessel(1)},
    {INT_MAX, tessel(INT_MAX % 2500)},
    {INT_MIN, tessel(INT_MIN % 2500)},
};

}  // namespace

TEST(interface_name, number_behind_each_prefix_tells_the_connection) {
    for (const auto& [number, wanted] : borders) {
        for (const std::string prefix : {"mirec", "tun", "ppp"}) {
            const std::string name = prefix + std::to_string(number);
            EXPECT_EQ(connection_of(name), wanted) << name;
        }
    }
}

TEST(interface_name, without_a_prefix_leaves_the_number_to_the_caller) {
    for (const auto& [number, wanted] : borders) {
        for (const char* name : {"", "eth0", "1003", "pp1003", "tu2001", "mire2501", "PPP1003",
                                 "Tun2001", "p p p1003", "\xff"}) {
            EXPECT_EQ(connection_of(name, number), wanted) << name << ", " << number;
        }
    }
}

TEST(interface_name, rows) {
    const std::string above_long = "9223372036854775808";
    struct {
        std::string name;
        connection wanted;
    } const cases[] = {
        {"ppp1003", pptp(3)},
        {"ppp1252", l2tp(2)},
        {"tun2001", ovpn(1)},
        {"mirec2507", tessel(7)},
        {"tun0", no_client},
        {"ppp5", no_client},
        // The prefix does not bind the number to a range.
        {"tun1003", pptp(3)},
        {"mirec1000", pptp(0)},
        {"ppp2500", tessel(0)},
        // What strtol reads.
        {"ppp", no_client},
        {"tun", no_client},
        {"mirec", no_client},
        {"pppx1003", no_client},
        {"ppp+1003", pptp(3)},
        {"ppp--1003", no_client},
        {"ppp+-1003", no_client},
        {"ppp- 1003", no_client},
        {"ppp \t\n1003", pptp(3)},
        {"ppp1003 ", pptp(3)},
        {"ppp1003x9", pptp(3)},
        {"ppp1003.9", pptp(3)},
        {"ppp1e4", no_client},
        {"ppp0001003", pptp(3)},
        {"ppp0x7d1", no_client},
        {std::string("ppp1003\0"
                     "9",
                     9),
         pptp(3)},
        {std::string("ppp\0"
                     "1003",
                     8),
         no_client},
        // Beyond int the low 32 bits count; beyond long strtol gives the nearest long.
        {"ppp2147483648", tessel(INT_MIN % 2500)},
        {"ppp-2147483649", tessel(INT_MAX % 2500)},
        {"ppp4294967296", no_client},
        {"ppp4294968299", pptp(3)},
        {"ppp-4294968299", pptp(-3)},
        {"ppp9223372036854775807", no_client},
        {"ppp" + above_long, no_client},
        {"ppp-" + above_long, no_client},
        {"ppp-9223372036854775809", no_client},
        {"tun" + std::string(5000, '9'), no_client},
        {"tun-" + std::string(5000, '9'), no_client},
        // A prefix anywhere, but the number from where a prefix at the start would end.
        {"xppp1001", no_client},
        {"100ppp1003", no_client},
        {"xyz1003ppp", pptp(3)},
        {"xyz2001tun", ovpn(1)},
        {"abcde2501mirec", tessel(1)},
        {"eth1003-tun0", pptp(3)},
        {"x-ppp", no_client},
        {"1003ppp", no_client},
        {"ppp-1003", pptp(-3)},
        // Several: "mirec" goes first, then "tun", wherever they stand.
        {"ppp1003tun", pptp(3)},
        {"tun1003mirec", no_client},
        {"ppp991003mirec", pptp(3)},
        {"ppp99mirec1003", no_client},
        {"mirec1003tunppp", pptp(3)},
        {"ppp1003ppp2001", pptp(3)},
        {"tunppp1003", no_client},
    };
    for (const auto& c : cases) EXPECT_EQ(connection_of(c.name), c.wanted) << c.name;
}

// --- The current gateway ------------------------------------------------------------------------

namespace {

class gateway : public world {
  protected:
    // What get_vpn_gw makes of a reply.
    static std::string current(const std::string& reply) {
        start_case(std::nullopt);
        replies["api.get_currentGWinfo"] = reply;
        JsonValue data;
        GlobalConfig().get_vpn_gw(data);
        EXPECT_EQ(events(), texts{current_call});
        return text_of(data);
    }

    // Expects that data of any kind stays as it is.
    static void expect_untouched(const std::vector<expected_line>& log) {
        JsonValue object;
        object["type"] = 7;
        object["other"] = "x";
        JsonValue text("text");
        JsonValue null;
        for (JsonValue* data : {&object, &text, &null}) {
            const auto before = std::pair(data->type, data->value);
            const std::string text_before = text_of(*data);
            forget_log();
            forget_events();
            GlobalConfig().get_vpn_gw(*data);
            EXPECT_EQ(std::pair(data->type, data->value), before);
            EXPECT_EQ(text_of(*data), text_before);
            expect_log(log);
        }
    }
};

const expected_line failed_question = log_of("get_vpn_gw", "get_currentGWinfo: zb_call failed\n");

std::string devices(const std::string& elements) {
    return R"({"error": 0, "data": [)" + elements + "]}";
}

std::string vpn(const std::string& ifname) {
    return R"({"interface_type": "VPN", "ifname": ")" + ifname + "\"}";
}

}  // namespace

TEST_F(gateway, that_is_current_is_the_first_vpn_of_the_network_service) {
    const std::string none = R"({"index":0,"type":0})";
    const std::string ovpn_1 = R"({"index":1,"type":1024})";
    const std::string ethernet = R"({"interface_type": "ethernet", "ifname": "ppp1003"})";
    struct {
        std::string reply;
        std::string data;
    } const cases[] = {
        {devices(vpn("tun2001")), ovpn_1},
        {devices(vpn("ppp1003")), R"({"index":3,"type":256})"},
        {devices(vpn("ppp1250")), R"({"index":0,"type":512})"},
        {devices(vpn("mirec2504")), R"({"index":4,"type":4096})"},
        {devices(vpn("mirec-2504")), R"({"index":-4,"type":4096})"},
        {devices(vpn("tun0")), none},
        {devices(vpn("eth0")), none},
        {devices(vpn("")), none},
        {devices(ethernet + "," + vpn("tun2001")), ovpn_1},
        {devices(vpn("tun2001") + "," + vpn("ppp1003")), ovpn_1},
        {devices(vpn("eth0") + "," + vpn("tun2001")), none},
        {devices(vpn("tun2001") + ", 5, null"), ovpn_1},  // nothing behind it is looked at
        {devices(R"({"interface_type": "VPN", "ifname": "tun2001", "other": {}})"), ovpn_1},
        {devices(""), none},
        {devices(ethernet), none},
        {devices(ethernet + "," + ethernet), none},
        {devices("{}"), none},
        {devices(R"({"ifname": "tun2001"})"), none},
        {devices(R"({"interface_type": 5, "ifname": "tun2001"})"), none},
        {devices(R"({"interface_type": null, "ifname": "tun2001"})"), none},
        {devices(R"({"interface_type": ["VPN"], "ifname": "tun2001"})"), none},
        {devices(R"({"interface_type": "", "ifname": "tun2001"})"), none},
        {devices(R"({"interface_type": "vpn", "ifname": "tun2001"})"), none},
        {devices(R"({"interface_type": "VPN ", "ifname": "tun2001"})"), none},
        {devices(R"({"interface_type": "VP", "ifname": "tun2001"})"), none},
        {devices(R"({"interface_type": 5}, )" + vpn("tun2001")), ovpn_1},
        {R"({"error": 0})", none},
        {R"({"error": 0, "data": null})", none},
        {R"({"error": 0, "data": 5})", none},
        {R"({"error": 0, "data": "VPN"})", none},
        {R"({"error": 0, "data": )" + vpn("tun2001") + "}", none},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reply);
        EXPECT_EQ(current(c.reply), c.data);
        EXPECT_EQ(read_file(log_path), "");
    }
}

TEST_F(gateway, that_is_current_is_two_ints_beside_what_data_holds) {
    replies["api.get_currentGWinfo"] = devices(vpn("tun2001"));
    JsonValue data;
    data["a"] = true;
    data["type"] = "old";
    GlobalConfig().get_vpn_gw(data);
    EXPECT_EQ(text_of(data), R"({"a":true,"index":1,"type":1024})");
    for (const char* key : {"type", "index"}) {
        const JsonValue* member = static_cast<JsonValue::JsonObject*>(data.value)->at(key);
        EXPECT_EQ(member->type, JsonValue::INT32_TYPE) << key;
    }
    JsonValue text("text");
    GlobalConfig().get_vpn_gw(text);
    EXPECT_EQ(text_of(text), R"({"index":1,"type":1024})");
}

TEST_F(gateway, that_cannot_be_asked_for_leaves_data_alone) {
    struct {
        const char* reply;
        const char* line;
    } const cases[] = {
        {R"({"error": 1, "data": [{"interface_type": "VPN", "ifname": "tun2001"}]})",
         "NetworkService.api.get_currentGWinfo  failed"},
        {"[]", "root isn't an object."},
        {"no JSON", "root isn't an object."},
        {R"({"data": []})", "val isn't an integer."},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reply);
        replies["api.get_currentGWinfo"] = c.reply;
        expect_untouched({log_of("easy_zb_call", std::string("easy_zb_call: ") + c.line + "\n"),
                          failed_question});
        EXPECT_EQ(events(), texts{current_call});
    }
    replies.erase("api.get_currentGWinfo");
    expect_untouched({failed_call(current_call), failed_question});
    stop_network_service();
    expect_untouched({failed_call(current_call), failed_question});
}

TEST_F(gateway, element_that_is_no_object_leaves_data_alone) {
    for (const char* element : {"5", "null", "\"VPN\"", "true", "[]", "1.5"}) {
        SCOPED_TRACE(element);
        for (const std::string& list :
             {std::string(element), element + (", " + vpn("tun2001")),
              std::string(R"({"interface_type": "ethernet"}, )") + element}) {
            replies["api.get_currentGWinfo"] = devices(list);
            expect_untouched({log_of("get_vpn_gw", "val isn't an object.\n")});
        }
    }
}

TEST_F(gateway, vpn_without_a_name_leaves_data_alone_without_a_word) {
    for (const char* rest : {"", R"(, "ifname": 5)", R"(, "ifname": null)",
                             R"(, "ifname": ["tun2001"])", R"(, "Ifname": "tun2001")"}) {
        SCOPED_TRACE(rest);
        const std::string nameless = std::string(R"({"interface_type": "VPN")") + rest + "}";
        for (const std::string& list : {nameless, nameless + ", " + vpn("tun2001")}) {
            replies["api.get_currentGWinfo"] = devices(list);
            expect_untouched({});
        }
    }
}

// --- A connection that goes away ----------------------------------------------------------------

namespace {

constexpr char gw1[] = R"("gw1": {"type": 1024, "index": 3, "sname": "OPENVPN_CLIENT3"})";
constexpr char gw2[] = R"("gw2": {"type": 256, "index": 1, "sname": "PPTP_CLIENT1"})";
constexpr connection gw1_connection = ovpn(3);
constexpr connection gw2_connection = pptp(1);

expected_line changed(const std::string& document) {
    return log_of("disable_gateway", "gw changed, root=" + document + "\n");
}

// What follows a change: the gateway that there is, if there is one, and the update.
texts told(const std::string& sname, const std::string& type, const std::string& profile) {
    return {profile_call(sname), gateway_set(type, profile), update_call};
}
const texts told_gw1 = told("OPENVPN_CLIENT3", "OpenVPN", "office");
const texts told_promotion = told("PPTP_CLIENT1", "PPTP", "home");
const texts told_no_gateway = {update_call};

struct loss {
    std::string name;
    std::string before;  // the members of the setting
    connection gone;
    std::string after;  // the same; "unchanged": nothing is written, sent or logged
    texts events{};
    std::vector<expected_line> log{};  // before the last line
};

void expect_loss(const loss& c) {
    SCOPED_TRACE(c.name + ": " + c.before);
    const std::string before = with_setting(c.before) + "\n";  // no line feed when written anew
    start_case(before);
    EXPECT_EQ(GlobalConfig().disable_gateway(c.gone.type, c.gone.index), 0);
    EXPECT_EQ(events(), c.events);
    if (c.after == "unchanged") {
        EXPECT_EQ(stored(), before);
        expect_log({});
        return;
    }
    EXPECT_EQ(stored(), with_setting(c.after));
    std::vector<expected_line> log = c.log;
    log.push_back(changed(with_setting(c.after)));
    expect_log(log);
}

std::string members(const texts& list) {
    std::string all;
    for (const std::string& member : list) all += (all.empty() ? "" : ", ") + member;
    return all;
}

}  // namespace

TEST_F(gateway, setting_that_is_off_stays_as_it_is) {
    for (const char* as_gw_en :
         {R"("x": 1)", R"("as_gw_en": 0)", R"("as_gw_en": 0.0)", R"("as_gw_en": 0.5)",
          R"("as_gw_en": -0.9)", R"("as_gw_en": "1")", R"("as_gw_en": true)", R"("as_gw_en": null)",
          R"("as_gw_en": [1])", R"("as_gw_en": {"as_gw_en": 1})", R"("AS_GW_EN": 1)"}) {
        expect_loss({"gateway", members({as_gw_en, gw1}), gw1_connection, "unchanged"});
        expect_loss({"backup", members({as_gw_en, gw1, R"("failover_en": 1)", gw2}), gw2_connection,
                     "unchanged"});
        expect_loss({"none", members({as_gw_en, gw1}), no_client, "unchanged"});
    }
}

TEST_F(gateway, setting_is_on_at_any_number_that_is_not_0) {
    for (const char* number : {"1", "1.0", "1.9", "-1", "-1.5", "2", "65536", "4294967296",
                               "9223372036854775807", "1e300", "-1e300"}) {
        expect_loss({"gateway", members({std::string(R"("as_gw_en": )") + number, gw1}),
                     gw1_connection, R"("as_gw_en": 0)", told_no_gateway});
    }
}

TEST_F(gateway, without_failover) {
    const std::string on = R"("as_gw_en": 1)";
    const std::string gateway_gone = R"("as_gw_en": 0)";
    const loss cases[] = {
        {"the gateway", members({on, gw1}), gw1_connection, gateway_gone, told_no_gateway},
        {"another index", members({on, gw1}), ovpn(4), "unchanged"},
        {"another type", members({on, gw1}), pptp(3), "unchanged"},
        {"another of both", members({on, gw1}), gw2_connection, "unchanged"},
        {"half of none, type", members({on, gw1}), {ravo::NONE_TYPE, 3}, "unchanged"},
        {"half of none, index", members({on, gw1}), ovpn(0), "unchanged"},
        {"none", members({on, gw1}), no_client, members({on, gw1, R"("failover_en": 0)"}),
         told_gw1},
        {"none, with what is left of a backup",
         members({R"("failover_interval": 5)", on, gw2, gw1, R"("failover_en": 0)"}), no_client,
         members({on, gw1, R"("failover_en": 0)"}), told_gw1},
        {"the backup is not read", members({on, gw1, R"("failover_en": 0)", gw2}), gw2_connection,
         "unchanged"},
        {"what is left of a backup stays",
         members({on, gw1, R"("failover_en": 0, "failover_interval": 5)", gw2}), gw1_connection,
         members({gateway_gone, R"("failover_en": 0, "failover_interval": 5)", gw2}),
         told_no_gateway},
        {"the gateway stands before the backup's none", members({on}), no_client, gateway_gone,
         told_no_gateway},
        {"no gateway there", members({on}), gw1_connection, "unchanged"},
        {"a gateway without members", members({on, R"("gw1": {})"}), no_client, gateway_gone,
         told_no_gateway},
        {"a gateway without a type",
         members({on, R"("gw1": {"index": 3})"}),
         {ravo::NONE_TYPE, 3},
         gateway_gone,
         told_no_gateway},
        {"a gateway without an index", members({on, R"("gw1": {"type": 1024})"}), ovpn(0),
         gateway_gone, told_no_gateway},
        {"a gateway of texts", members({on, R"("gw1": {"type": "1024", "index": "3"})"}), no_client,
         gateway_gone, told_no_gateway},
        {"a gateway that is a text", members({on, R"("gw1": "x")"}), no_client, gateway_gone,
         told_no_gateway},
        {"a gateway that is null", members({on, R"("gw1": null)"}), no_client, gateway_gone,
         told_no_gateway},
        {"a gateway that is an array", members({on, R"("gw1": [1024, 3])"}), gw1_connection,
         "unchanged"},
        {"other members stay", members({R"("a": [1.5])", gw1, on, R"("b": null)"}), gw1_connection,
         members({R"("a": [1.5])", gateway_gone, R"("b": null)"}), told_no_gateway},
    };
    for (const loss& c : cases) expect_loss(c);
}

TEST_F(gateway, failover_is_off_at_anything_but_a_number_that_is_not_0) {
    for (const char* failover_en :
         {R"("x": 1)", R"("failover_en": 0)", R"("failover_en": 0.75)", R"("failover_en": -0.75)",
          R"("failover_en": "1")", R"("failover_en": true)", R"("failover_en": null)",
          R"("failover_en": [1])"}) {
        expect_loss({"backup", members({R"("as_gw_en": 1)", gw1, failover_en, gw2}), gw2_connection,
                     "unchanged"});
        expect_loss({"gateway", members({R"("as_gw_en": 1)", gw1, failover_en, gw2}),
                     gw1_connection, members({R"("as_gw_en": 0)", failover_en, gw2}),
                     told_no_gateway});
    }
}

TEST_F(gateway, failover_is_on_at_any_number_that_is_not_0) {
    for (const char* number : {"1", "1.9", "-1", "2", "4294967296", "1e300"}) {
        const std::string failover_en = std::string(R"("failover_en": )") + number;
        expect_loss({"backup", members({R"("as_gw_en": 1)", gw1, failover_en, gw2}), gw2_connection,
                     members({R"("as_gw_en": 1)", gw1, R"("failover_en": 0)"}), told_gw1});
    }
}

TEST_F(gateway, with_failover) {
    const std::string on = R"("as_gw_en": 1)";
    const std::string failover = R"("failover_en": 1)";
    const std::string over = R"("failover_en": 0)";
    const std::string promoted = R"("gw1": {"type": 256, "index": 1, "sname": "PPTP_CLIENT1"})";
    const std::string promoted_new = R"("gw1": {"index": 1, "type": 256, "sname": "PPTP_CLIENT1"})";
    const std::string no_one = R"("gw1": {"type": 0, "index": 0, "sname": ""})";
    const texts told_no_one = told("", "", "");
    const std::vector<expected_line> no_one_s_profile = {
        log_of("get_profile_name", "get_profile_name:  isn't an object.\n")};
    const loss cases[] = {
        {"the gateway", members({on, gw1, failover, R"("failover_interval": 5)", gw2}),
         gw1_connection, members({on, promoted, over}), told_promotion},
        {"the gateway, no interval", members({on, gw1, failover, gw2}), gw1_connection,
         members({on, promoted, over}), told_promotion},
        {"the backup", members({on, gw1, failover, R"("failover_interval": 5)", gw2}),
         gw2_connection, members({on, gw1, over}), told_gw1},
        {"both are the same",
         members({on, gw1, failover, R"("gw2": {"type": 1024, "index": 3, "sname": "x"})"}),
         gw1_connection,
         members({on, R"("gw1": {"type": 1024, "index": 3, "sname": "x"})", over}),
         told("x", "OpenVPN", ""),
         {log_of("get_profile_name", "get_profile_name: x isn't an object.\n")}},
        {"neither", members({on, gw1, failover, gw2}), l2tp(2), "unchanged"},
        {"the gateway's type, the backup's index", members({on, gw1, failover, gw2}), ovpn(1),
         "unchanged"},
        {"the backup's type, the gateway's index", members({on, gw1, failover, gw2}), pptp(3),
         "unchanged"},
        {"none", members({on, gw1, failover, gw2}), no_client, "unchanged"},
        {"none, and no backup there", members({on, gw1, failover}), no_client,
         members({on, gw1, over}), told_gw1},
        {"none, and a backup that is no object", members({on, gw1, failover, R"("gw2": 5)"}),
         no_client, members({on, gw1, over}), told_gw1},
        {"the gateway, and no backup there", members({on, gw1, failover}), gw1_connection,
         members({on, no_one, over}), told_no_one, no_one_s_profile},
        {"the gateway, and a backup without members", members({on, gw1, failover, R"("gw2": {})"}),
         gw1_connection, members({on, no_one, over}), told_no_one, no_one_s_profile},
        {"none, and no gateway there", members({on, failover, gw2}), no_client,
         members({on, over, promoted_new}), told_promotion},
        {"none, and a gateway that is no object", members({R"("gw1": 5)", on, failover, gw2}),
         no_client, members({promoted_new, on, over}), told_promotion},
        {"the backup, and no gateway there", members({on, failover, gw2}), gw2_connection,
         members({on, over}), told_no_one, no_one_s_profile},
        {"a backup without a name",
         members({on, gw1, failover, R"("gw2": {"type": 256, "index": 1})"}), gw1_connection,
         members({on, R"("gw1": {"type": 256, "index": 1, "sname": ""})", over}),
         told("", "PPTP", ""), no_one_s_profile},
        {"a backup whose name is no text",
         members({on, gw1, failover, R"("gw2": {"type": 256, "index": 1, "sname": 5})"}),
         gw1_connection, members({on, R"("gw1": {"type": 256, "index": 1, "sname": ""})", over}),
         told("", "PPTP", ""), no_one_s_profile},
        {"a gateway without a name gets one",
         members({on, R"("gw1": {"index": 3, "type": 1024})", failover, gw2}), gw1_connection,
         members({on, promoted_new, over}), told_promotion},
        {"other members of the gateway stay, those of the backup go",
         members({on, R"("gw1": {"a": [1], "sname": 0, "type": 1024, "index": 3})", failover,
                  R"("gw2": {"type": 256, "index": 1, "sname": "PPTP_CLIENT1", "b": 2})"}),
         gw1_connection,
         members(
             {on, R"("gw1": {"a": [1], "sname": "PPTP_CLIENT1", "type": 256, "index": 1})", over}),
         told_promotion},
        {"other members of the setting stay",
         members({R"("a": {})", R"("failover_interval": "x")", gw2, failover, R"("b": 1.5)", gw1,
                  R"("as_gw_en": 1.5)"}),
         gw1_connection,
         members({R"("a": {})", over, R"("b": 1.5)", promoted, R"("as_gw_en": 1.5)"}),
         told_promotion},
    };
    for (const loss& c : cases) expect_loss(c);
}

TEST_F(gateway, numbers_are_truncated_toward_0_and_never_wrap) {
    constexpr TYPE largest_type = static_cast<TYPE>(65535);
    struct {
        const char* type;
        const char* index;
        connection same;
        connection other;
    } const cases[] = {
        {"1024", "3", ovpn(3), ovpn(4)},
        {"1024.0", "2.9", ovpn(2), ovpn(3)},
        {"1024.9", "-2.9", ovpn(-2), ovpn(-3)},
        {"1024", "-3", ovpn(-3), ovpn(3)},
        {"1024", "-0.9", ovpn(0), ovpn(-1)},
        {"1024", "2147483647", ovpn(INT_MAX), ovpn(-1)},
        {"1024", "2147483648", ovpn(INT_MAX), ovpn(INT_MIN)},
        {"1024", "-2147483649", ovpn(INT_MIN), ovpn(INT_MAX)},
        {"1024", "4294967299", ovpn(INT_MAX), ovpn(3)},
        {"1024", "-4294967293", ovpn(INT_MIN), ovpn(3)},
        {"1024", "9223372036854775807", ovpn(INT_MAX), ovpn(-1)},
        {"1024", "1e300", ovpn(INT_MAX), ovpn(0)},
        {"1024", "-1e300", ovpn(INT_MIN), ovpn(0)},
        {"65535", "3", {largest_type, 3}, {ravo::NONE_TYPE, 3}},
        {"65536", "3", {largest_type, 3}, {ravo::NONE_TYPE, 3}},
        {"66560", "3", {largest_type, 3}, ovpn(3)},
        {"1e300", "3", {largest_type, 3}, ovpn(3)},
        {"-64512", "3", {ravo::NONE_TYPE, 3}, ovpn(3)},
        {"-1e300", "3", {ravo::NONE_TYPE, 3}, ovpn(3)},
    };
    for (const auto& c : cases) {
        const std::string numbers = R"({"type": )" + std::string(c.type) + R"(, "index": )" +
                                    c.index + R"(, "sname": "PPTP_CLIENT1"})";
        const std::string gateway_there = members({R"("as_gw_en": 1)", R"("gw1": )" + numbers});
        expect_loss(
            {"same as gateway", gateway_there, c.same, R"("as_gw_en": 0)", told_no_gateway});
        expect_loss({"other than gateway", gateway_there, c.other, "unchanged"});
        const std::string backup_there =
            members({R"("as_gw_en": 1)", gw1, R"("failover_en": 1)", R"("gw2": )" + numbers});
        if (c.other != gw1_connection) {
            expect_loss({"other than backup", backup_there, c.other, "unchanged"});
        }
        if (c.same == gw1_connection) continue;
        expect_loss({"same as backup", backup_there, c.same,
                     members({R"("as_gw_en": 1)", gw1, R"("failover_en": 0)"}), told_gw1});
        expect_loss(
            {"promoted", backup_there, gw1_connection,
             members({R"("as_gw_en": 1)",
                      R"("gw1": {"type": )" + std::to_string(c.same.type) + R"(, "index": )" +
                          std::to_string(c.same.index) + R"(, "sname": "PPTP_CLIENT1"})",
                      R"("failover_en": 0)"}),
             told("PPTP_CLIENT1", ravo::type_to_string(c.same.type), "home")});
    }
}

TEST_F(gateway, documents_without_a_setting_stay_as_they_are) {
    struct {
        const char* name;
        std::optional<std::string> bytes;
        std::vector<expected_line> log{};
    } const cases[] = {
        {"no file", std::nullopt, {no_options_file()}},
        {"no object", "[]", {no_object()}},
        {"empty file", "", {no_object()}},
        {"no section", "{}"},
        {"other sections", R"({"as_gw_en": 1, "global": {"as_gw_en": 1}})"},
        {"text", R"({"gw_setting": "as_gw_en"})"},
        {"array", R"({"gw_setting": [{"as_gw_en": 1}]})"},
        {"null", R"({"gw_setting": null})"},
        {"template", template_text},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        start_case(c.bytes);
        EXPECT_EQ(GlobalConfig().disable_gateway(ravo::NONE_TYPE, 0), 0);
        EXPECT_EQ(stored(), c.bytes.value_or("(none)"));
        EXPECT_EQ(events(), texts{});
        expect_log(c.log);
    }
}

TEST_F(gateway, other_sections_survive_a_loss) {
    const std::string before = R"({"z": [1.0], "gw_setting": {"as_gw_en": 1, )" + std::string(gw1) +
                               R"(}, "global": {"version": "7", "x": null}})";
    const std::string after =
        R"({"z": [1.0], "gw_setting": {"as_gw_en": 0}, "global": {"version": "7", "x": null}})";
    start_case(before);
    EXPECT_EQ(GlobalConfig().disable_gateway(ravo::OVPN_CLIENT_TYPE, 3), 0);
    EXPECT_EQ(stored(), after);
    expect_log({changed(after)});
    start_case(before);
    EXPECT_EQ(GlobalConfig().disable_gateway(ravo::OVPN_CLIENT_TYPE, 4), 0);
    EXPECT_EQ(stored(), before);
}

TEST_F(gateway, lost_one_after_the_other_until_none_is_left) {
    start_case(with_setting(members({R"("as_gw_en": 1)", gw1, R"("failover_en": 1)", gw2})));
    GlobalConfig config;
    EXPECT_EQ(config.disable_gateway(ravo::OVPN_CLIENT_TYPE, 3), 0);
    EXPECT_EQ(config.disable_gateway(ravo::OVPN_CLIENT_TYPE, 3), 0);
    EXPECT_EQ(config.disable_gateway(ravo::PPTP_CLIENT_TYPE, 1), 0);
    EXPECT_EQ(config.disable_gateway(ravo::PPTP_CLIENT_TYPE, 1), 0);
    EXPECT_EQ(stored(), with_setting(R"("as_gw_en": 0, "failover_en": 0)"));
    texts all = told_promotion;
    all.insert(all.end(), told_no_gateway.begin(), told_no_gateway.end());
    EXPECT_EQ(events(), all);
}

TEST_F(gateway, another_s_update_during_a_loss_is_overwritten) {
    start_case(with_setting(members({R"("as_gw_en": 1)", gw1})));
    on_reading = [] {
        replace_file(R"({"global": {"version": "2"}, "gw_setting": {}, "new": 1})");
        on_reading = nullptr;
    };
    EXPECT_EQ(GlobalConfig().disable_gateway(ravo::OVPN_CLIENT_TYPE, 3), 0);
    EXPECT_EQ(stored(), R"({"global": {"version": "1"}, "gw_setting": {"as_gw_en": 0}, "new": 1})");
    expect_log({changed(with_setting(R"("as_gw_en": 0)"))});
}

TEST_F(gateway, change_is_logged_after_saving) {
    stop_network_service();
    start_case(with_setting(members({R"("as_gw_en": 1)", gw1, R"("failover_en": 1)", gw2})));
    EXPECT_EQ(GlobalConfig().disable_gateway(ravo::OVPN_CLIENT_TYPE, 3), 0);
    EXPECT_EQ(events(), texts{gateway_set("PPTP", "")});
    expect_log({failed_call(profile_call("PPTP_CLIENT1")), failed_call(update_call),
                failed_update(), changed(stored())});
}

TEST_F(gateway, change_that_cannot_be_written_is_logged_alike) {
    const std::string before = with_setting(members({R"("as_gw_en": 1)", gw1}));
    start_case(before);
    ASSERT_EQ(chmod(path, 0400), 0);
    EXPECT_EQ(GlobalConfig().disable_gateway(ravo::OVPN_CLIENT_TYPE, 3), 0);
    EXPECT_EQ(stored(), before);
    EXPECT_EQ(events(), texts{});
    expect_log({changed(with_setting(R"("as_gw_en": 0)"))});
}

// --- Notifications ------------------------------------------------------------------------------

namespace {

struct description {
    std::string setting;  // the value of "gw_setting"
    texts events{};
    std::vector<expected_line> log{};
};

// Expects what is sent for an update.
void expect_sent(const std::string& update, const texts& sent,
                 const std::vector<expected_line>& log) {
    SCOPED_TRACE(update);
    start_case(std::nullopt);
    json_t* raw = json_loads(update.c_str(), JSON_DECODE_ANY, nullptr);
    ASSERT_NE(raw, nullptr);
    ravo::ravo_gw_nclog(raw);
    EXPECT_EQ(take_text(raw), take_text(json_loads(update.c_str(), JSON_DECODE_ANY, nullptr)))
        << "it stays as it is";
    EXPECT_EQ(events(), sent);
    expect_log(log);
}

void expect_sent(const description& d) {
    expect_sent(R"({"gw_setting": )" + d.setting + "}", d.events, d.log);
}

std::string setting(const texts& list) { return "{" + members(list) + "}"; }

expected_line unlisted(const std::string& sname) {
    return log_of("get_profile_name", "get_profile_name: " + sname + " isn't an object.\n");
}

const texts sent_gw1 = {profile_call("OPENVPN_CLIENT3"), gateway_set("OpenVPN", "office")};

texts sent_both(const std::string& delay) {
    return {profile_call("OPENVPN_CLIENT3"), gateway_set("OpenVPN", "office"),
            profile_call("PPTP_CLIENT1"), backup_set("PPTP", "home"), delay_set(delay)};
}

}  // namespace

TEST_F(gateway, update_without_a_gateway_is_not_notified) {
    ravo::ravo_gw_nclog(nullptr);
    EXPECT_EQ(events(), texts{});
    for (const char* update : {"null", "5", "[]", R"([{"gw_setting": {"as_gw_en": 1}}])", "{}",
                               R"({"as_gw_en": 1})", R"({"global": {"as_gw_en": 1}})"}) {
        expect_sent(update, {}, {});
    }
    for (const char* value : {"null", "1", R"("as_gw_en")", "[1]", "{}"}) expect_sent({value});
    for (const char* as_gw_en :
         {"0", "0.0", "0.5", "-0.9", R"("1")", "true", "null", "[1]", R"({"as_gw_en": 1})"}) {
        expect_sent({setting(
            {std::string(R"("as_gw_en": )") + as_gw_en, gw1, R"("failover_en": 1)", gw2})});
    }
}

TEST_F(gateway, update_with_a_gateway_is_notified) {
    for (const char* as_gw_en : {"1", "1.9", "-1", "2", "1e300", "4294967296"}) {
        expect_sent({setting({std::string(R"("as_gw_en": )") + as_gw_en, gw1}), sent_gw1});
    }
    struct {
        std::string gateway;
        texts events;
        std::vector<expected_line> log{};
    } const cases[] = {
        {R"({"type": 256, "index": 1, "sname": "PPTP_CLIENT1"})",
         {profile_call("PPTP_CLIENT1"), gateway_set("PPTP", "home")}},
        {R"({"type": 512, "index": 2, "sname": "L2TP_CLIENT2"})",
         {profile_call("L2TP_CLIENT2"), gateway_set("L2TP/IPSec", "ship")}},
        {R"({"type": 4096, "index": 0, "sname": "TESSEL_CLIENT0"})",
         {profile_call("TESSEL_CLIENT0"), gateway_set("Tessel", "lab")}},
        {R"({"type": 256.9, "sname": "TESSEL_CLIENT0"})",
         {profile_call("TESSEL_CLIENT0"), gateway_set("PPTP", "lab")}},
        {R"({"type": 4, "sname": "PPTP_CLIENT1"})",
         {profile_call("PPTP_CLIENT1"), gateway_set("", "home")}},
        {R"({"type": 66560, "sname": "PPTP_CLIENT1"})",
         {profile_call("PPTP_CLIENT1"), gateway_set("", "home")}},
        {R"({"type": "256", "sname": "PPTP_CLIENT1"})",
         {profile_call("PPTP_CLIENT1"), gateway_set("", "home")}},
        {R"({"type": 256, "sname": "nobody"})",
         {profile_call("nobody"), gateway_set("PPTP", "")},
         {unlisted("nobody")}},
        {R"({"type": 256})", {profile_call(""), gateway_set("PPTP", "")}, {unlisted("")}},
        {R"({"type": 256, "sname": 5})",
         {profile_call(""), gateway_set("PPTP", "")},
         {unlisted("")}},
        {R"({"type": 256, "sname": null})",
         {profile_call(""), gateway_set("PPTP", "")},
         {unlisted("")}},
        {R"({"type": 256, "sname": "a\"b"})",
         {profile_call("a\\\"b"), gateway_set("PPTP", "")},
         {unlisted("a\"b")}},
        {"{}", {profile_call(""), gateway_set("", "")}, {unlisted("")}},
        {"5", {profile_call(""), gateway_set("", "")}, {unlisted("")}},
    };
    for (const auto& c : cases) {
        expect_sent({setting({R"("as_gw_en": 1, "gw1": )" + c.gateway}), c.events, c.log});
    }
    expect_sent(
        {setting({R"("as_gw_en": 1)"}), {profile_call(""), gateway_set("", "")}, {unlisted("")}});
}

TEST_F(gateway, backup_and_delay_are_notified_after_the_gateway) {
    const std::string on = members({R"("as_gw_en": 1)", gw1, gw2});
    for (const char* off : {"0", "0.9", "-0.9", R"("1")", "true", "null", "[1]"}) {
        expect_sent({setting({on, std::string(R"("failover_en": )") + off}), sent_gw1});
    }
    expect_sent({setting({on, R"("failover_interval": 5)"}), sent_gw1});
    for (const char* number : {"1", "1.9", "-1", "4294967296", "1e300"}) {
        expect_sent(
            {setting({on, std::string(R"("failover_en": )") + number}), sent_both("immediatly")});
    }
    expect_sent({setting({R"("as_gw_en": 1, "failover_en": 1)"}),
                 {profile_call(""), gateway_set("", ""), profile_call(""), backup_set("", ""),
                  delay_set("immediatly")},
                 {unlisted(""), unlisted("")}});
    expect_sent({setting({R"("as_gw_en": 1, "failover_en": 1, "failover_interval": 10)", gw1,
                          R"("gw2": {"type": 512, "sname": "nobody"})"}),
                 {profile_call("OPENVPN_CLIENT3"), gateway_set("OpenVPN", "office"),
                  profile_call("nobody"), backup_set("L2TP/IPSec", ""), delay_set("10")},
                 {unlisted("nobody")}});
}

TEST_F(gateway, delay_is_notified_as_its_text) {
    struct {
        const char* value;
        const char* text;
    } const cases[] = {
        {"-1", "Not"},
        {"0", "immediatly"},
        {"1", "1"},
        {"5", "5"},
        {"10", "10"},
        {"3", ""},
        {"-2", ""},
        {"5.9", "5"},
        {"-1.9", "Not"},
        {"-0.9", "immediatly"},
        {"\"5\"", "immediatly"},
        {"null", "immediatly"},
        {"1e300", ""},
        {"4294967297", ""},
        {"-4294967297", ""},
    };
    for (const auto& c : cases) {
        expect_sent({setting({R"("as_gw_en": 1)", gw1, R"("failover_en": 1)",
                              std::string(R"("failover_interval": )") + c.value, gw2}),
                     sent_both(c.text)});
    }
}

TEST_F(gateway, profile_name_of_any_text_is_passed_on_as_it_is) {
    struct {
        const char* json;
        const char* text;
    } const cases[] = {
        {"", ""},
        {R"(two words)", "two words"},
        {R"(\"quoted\" 'x' \\ $HOME `id`; id)", "\"quoted\" 'x' \\ $HOME `id`; id"},
        {R"(line\nfeed\ttab)", "line\nfeed\ttab"},
        {R"({0}{1}{2}%s%n)", "{0}{1}{2}%s%n"},
        {R"(-A)", "-A"},
        {R"(\u65e5\u672c)", "\xe6\x97\xa5\xe6\x9c\xac"},
    };
    for (const auto& c : cases) {
        replies["external_dev.list"] = R"({"error": 0, "data": {"OPENVPN_CLIENT3": {"profile": ")" +
                                       std::string(c.json) + "\"}}}";
        expect_sent({setting({R"("as_gw_en": 1)", gw1}),
                     {profile_call("OPENVPN_CLIENT3"), gateway_set("OpenVPN", c.text)}});
    }
}

TEST_F(gateway, connection_whose_name_is_no_utf_8_has_no_profile) {
    json_t* raw = json_pack("{s:{s:i, s:{s:i, s:o}}}", "gw_setting", "as_gw_en", 1, "gw1", "type",
                            1024, "sname", json_string_nocheck("\xff"));
    ravo::ravo_gw_nclog(raw);
    json_decref(raw);
    EXPECT_EQ(events(), (texts{"external_dev.list {}", gateway_set("OpenVPN", "")}));
    expect_log({unlisted("\xff")});
}

TEST_F(gateway, is_notified_without_a_profile_while_the_network_service_is_down) {
    stop_network_service();
    expect_sent({setting({R"("as_gw_en": 1)", gw1, R"("failover_en": 1)", gw2}),
                 {gateway_set("OpenVPN", ""), backup_set("PPTP", ""), delay_set("immediatly")},
                 {failed_call(profile_call("OPENVPN_CLIENT3")),
                  failed_call(profile_call("PPTP_CLIENT1"))}});
}

TEST_F(gateway, notifications_are_lost_without_a_word_when_there_is_no_notifier) {
    remove_notifier();
    expect_sent({setting({R"("as_gw_en": 1)", gw1}), {profile_call("OPENVPN_CLIENT3")}});
}
