// The gateway setting of the global VPN options: shown, set, and one connection taken out of it.
#include "gateway.h"

#include <fmt/format.h>
#include <strings.h>

#include <charconv>
#include <cstdint>
#include <functional>
#include <new>

#include "global_options.h"
#include "json_ptr.h"
#include "options_file.h"
#include "output.h"
#include "text.h"

using ravo::GlobalConfig;

namespace {

// Words that name a VPN client connection: its type and its index, such as "openvpn" "1".
using connection_words = std::vector<std::string>;

struct gateway_request {
    connection_words gateway;  // or the single word "none"
    connection_words backup;   // may be empty
    std::optional<std::string> delay;
    bool reset = false;  // begin a damaged file anew
};

// --- Connections and delays ---------------------------------------------------------------------

struct connection {
    ravo::TYPE type = ravo::NONE_TYPE;
    int index = 0;
    std::string sname = {};  // short name; by it the network service knows the profile

    // The short name follows from the rest.
    bool operator==(const connection& other) const {
        return type == other.type && index == other.index;
    }
};

struct client_kind {
    const char* word;
    ravo::TYPE type;
    int largest_index;  // the next one would be the interface number of another connection
};
constexpr client_kind client_kinds[] = {
    {"pptp", ravo::PPTP_CLIENT_TYPE, 249},
    {"l2tp", ravo::L2TP_CLIENT_TYPE, 749},
    {"openvpn", ravo::OVPN_CLIENT_TYPE, 499},
    {"tessel", ravo::TESSEL_CLIENT_TYPE, 2499},
};

struct delay_word {
    const char* word;
    int code;
    const char* shown;
};
constexpr delay_word delay_words[] = {
    {"never", -1, "never"}, {"0", 0, "0, at once"}, {"1", 1, "1"}, {"5", 5, "5"}, {"10", 10, "10"}};
constexpr int default_delay = 0;

bool is_same_word(const std::string& text, const std::string& word) {
    return strcasecmp(text.c_str(), word.c_str()) == 0;
}

// The words that types are given by, and the range of indexes of each.
std::string gateway_words_help() {
    std::string words;
    for (const client_kind& kind : client_kinds) {
        words +=
            fmt::format("{}{} (0 to {})", words.empty() ? "" : ", ", kind.word, kind.largest_index);
    }
    return words;
}

// The names that connections are shown by are taken, too.
const client_kind& parse_kind(const std::string& text) {
    for (const client_kind& kind : client_kinds) {
        if (is_same_word(text, kind.word) || is_same_word(text, ravo::type_to_string(kind.type))) {
            return kind;
        }
    }
    throw usage_error(fmt::format("\"{}\" is no type of VPN client connections; these are {}",
                                  escaped(text), gateway_words_help()));
}

int parse_index(const client_kind& kind, const std::string& text) {
    int index = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, index);
    if (error == std::errc() && stop == end && 0 <= index && index <= kind.largest_index) {
        return index;
    }
    throw usage_error(fmt::format("\"{}\" is no index of {}; these are 0 to {}", escaped(text),
                                  ravo::type_to_string(kind.type), kind.largest_index));
}

connection parse_connection(const connection_words& words) {
    if (words.size() != 2) throw usage_error("a connection is given as TYPE INDEX");
    const client_kind& kind = parse_kind(words[0]);
    const int index = parse_index(kind, words[1]);
    return {kind.type, index, ravo::typeindex_to_sname(kind.type, index)};
}

int parse_delay(const std::string& text) {
    for (const delay_word& delay : delay_words) {
        if (is_same_word(text, delay.word)) return delay.code;
    }
    throw usage_error(fmt::format("--delay: \"{}\" is none of never, 0, 1, 5, 10", escaped(text)));
}

std::string name_of(const connection& c) {
    const std::string type = ravo::type_to_string(c.type);
    if (type.empty()) return fmt::format("unknown type {}, index {}", unsigned{c.type}, c.index);
    return fmt::format("{} {}", type, c.index);
}

std::string name_of_delay(int code) {
    for (const delay_word& delay : delay_words) {
        if (delay.code == code) return delay.shown;
    }
    return fmt::format("{}, which is no known delay", code);
}

// --- The setting --------------------------------------------------------------------------------

struct gateway_setting {
    std::optional<connection> gateway = {};
    std::optional<connection> backup = {};  // only next to a gateway
    int delay = default_delay;              // of the way back; counts with a backup

    bool operator==(const gateway_setting& other) const {
        return gateway == other.gateway && backup == other.backup &&
               (!backup || delay == other.delay);
    }
};

connection read_connection(const json_t* setting, const char* key) {
    const json_t* entry = json_object_get(setting, key);
    const char* sname = json_string_value(json_object_get(entry, "sname"));
    return {static_cast<ravo::TYPE>(ravo::number<uint16_t>(entry, "type")),
            ravo::number<int>(entry, "index"), sname != nullptr ? sname : ""};
}

gateway_setting read_setting(const json_t* root) {
    const json_t* section = json_object_get(root, "gw_setting");
    gateway_setting setting;
    if (ravo::number<int>(section, "as_gw_en") == 0) return setting;
    setting.gateway = read_connection(section, "gw1");
    if (ravo::number<int>(section, "failover_en") == 0) return setting;
    setting.backup = read_connection(section, "gw2");
    setting.delay = ravo::number<int>(section, "failover_interval");
    return setting;
}

json_t* to_section(const connection& c) {
    return json_pack("{s:i, s:i, s:s}", "type", static_cast<int>(c.type), "index", c.index, "sname",
                     c.sname.c_str());
}

// The whole section, since the store replaces it as a whole.
json_ptr to_section(const gateway_setting& setting) {
    if (!setting.gateway) return json_ptr(json_pack("{s:i}", "as_gw_en", 0));
    json_ptr section(json_pack("{s:i, s:o, s:i}", "as_gw_en", 1, "gw1",
                               to_section(*setting.gateway), "failover_en",
                               setting.backup ? 1 : 0));
    if (!setting.backup) return section;
    const json_ptr backup(json_pack("{s:o, s:i}", "gw2", to_section(*setting.backup),
                                    "failover_interval", setting.delay));
    if (json_object_update(section.get(), backup.get()) != 0) throw std::bad_alloc();
    return section;
}

gateway_setting parse_request(const gateway_request& request) {
    gateway_setting setting;
    if (request.delay && request.backup.empty()) {
        throw usage_error("--delay: without --backup there is no way back to delay");
    }
    if (request.gateway.size() == 1 && is_same_word(request.gateway[0], "none")) {
        if (request.backup.empty()) return setting;
        throw usage_error("--backup: without a gateway there is nothing to back up");
    }
    setting.gateway = parse_connection(request.gateway);
    if (request.backup.empty()) return setting;
    setting.backup = parse_connection(request.backup);
    if (setting.backup == setting.gateway) {
        throw usage_error("--backup: a connection cannot be its own backup");
    }
    if (request.delay) setting.delay = parse_delay(*request.delay);
    return setting;
}

// --- The network service ------------------------------------------------------------------------

// What the network service tells of the default route.
struct default_route {
    bool is_known = false;
    std::optional<connection> vpn = {};
};

// The store hands out a tree that is not for reading, so its text is read.
default_route ask_default_route() {
    JsonValue answer;
    GlobalConfig().get_vpn_gw(answer);
    if (answer.type != JsonValue::OBJECT_TYPE) return {};
    std::string text;
    answer.toString(text);
    const json_ptr route(json_loads(text.c_str(), 0, nullptr));
    const connection c = {static_cast<ravo::TYPE>(ravo::number<uint16_t>(route.get(), "type")),
                          ravo::number<int>(route.get(), "index")};
    if (c.type == ravo::NONE_TYPE) return {true, std::nullopt};
    return {true, c};
}

// Not asked of a service that has just left another question unanswered.
std::string profile_of(const connection& c, bool service_answers) {
    return service_answers && !c.sname.empty() ? ravo::get_profile_name(c.sname) : "";
}

// The store has asked for this already, but does not tell what came of it.
bool have_setting_read() {
    const json_ptr reply(
        ravo::easy_zb_call("NetworkService", "external_dev.update_vpn_gw", nullptr));
    if (reply != nullptr) return true;
    fmt::print(stderr,
               "ravoctl: the network service has not read the setting: it does not answer or "
               "refuses; see its messages\n");
    return false;
}

// --- Output -------------------------------------------------------------------------------------

constexpr char no_connection[] = "no VPN connection";

void print_line(const char* label, const std::string& text) {
    fmt::print("{:<15}{}\n", label, text);
}

std::string describe(const connection& c, bool service_answers) {
    const std::string profile = profile_of(c, service_answers);
    return name_of(c) + (profile.empty() ? "" : fmt::format(", profile \"{}\"", escaped(profile)));
}

void print_setting(const gateway_setting& setting, bool service_answers) {
    print_line("gateway:",
               setting.gateway ? describe(*setting.gateway, service_answers) : no_connection);
    if (!setting.gateway) return;
    print_line("backup:", setting.backup ? describe(*setting.backup, service_answers) : "none");
    if (setting.backup) print_line("delay:", name_of_delay(setting.delay));
}

void print_route(const default_route& route) {
    const std::string known = route.vpn ? name_of(*route.vpn) : no_connection;
    print_line("default route:",
               route.is_known ? known : "not known: the network service does not tell");
}

void print_all(const options_document& options, const default_route& route) {
    if (options.state == options_state::damaged) {
        print_line("gateway:", "not known: the options file is damaged");
    } else {
        print_setting(read_setting(options.root.get()), route.is_known);
    }
    print_route(route);
}

json_t* to_json(const std::optional<connection>& c, const default_route& route) {
    if (!c) return json_null();
    const std::string profile = profile_of(*c, route.is_known);
    return json_pack("{s:s, s:i, s:i, s:s, s:s?}", "type", ravo::type_to_string(c->type).c_str(),
                     "type_code", static_cast<int>(c->type), "index", c->index, "sname",
                     c->sname.c_str(), "profile", profile.empty() ? nullptr : profile.c_str());
}

json_t* route_to_json(const default_route& route) {
    if (!route.vpn) return json_null();
    return json_pack("{s:s, s:i, s:i}", "type", ravo::type_to_string(route.vpn->type).c_str(),
                     "type_code", static_cast<int>(route.vpn->type), "index", route.vpn->index);
}

const char* word_of(options_state state) {
    switch (state) {
        case options_state::present:
            return "present";
        case options_state::missing:
            return "missing";
        case options_state::damaged:
            break;
    }
    return "damaged";
}

void print_all_as_json(const options_document& options, const default_route& route) {
    const gateway_setting setting = read_setting(options.root.get());
    const json_ptr json(json_pack(
        "{s:s, s:s, s:o, s:o, s:o, s:b, s:o}", "schema", schema_name("gateway").c_str(),
        "options_file", word_of(options.state), "gateway", to_json(setting.gateway, route),
        "backup", to_json(setting.backup, route), "delay",
        setting.backup ? json_integer(setting.delay) : json_null(), "default_route_is_known",
        static_cast<int>(route.is_known), "default_route", route_to_json(route)));
    dump_to_stdout(json.get());
    fmt::print("\n");
}

// --- Changes ------------------------------------------------------------------------------------

void tell_left_copy(const options_document& options) {
    const std::optional<std::string> copy = left_copy(options);
    if (!copy) return;
    fmt::print(stderr,
               "ravoctl: a change was interrupted: what the options held before is in {}, and the "
               "next change puts it back\n",
               *copy);
}

bool make_good_interrupted_change() {
    if (!take_back_interrupted_change()) return false;
    fmt::print(stderr, "ravoctl: an interrupted change was taken back\n");
    return true;
}

// The network service may have read what the copy has replaced since.
json_ptr change_or_have_old_setting_read(const json_t* before,
                                         const std::function<void()>& change) {
    try {
        return change_options(before, change);
    } catch (const not_kept_error&) {
        (void)have_setting_read();
        throw;
    }
}

void check_kept(bool is_kept) {
    if (is_kept) return;
    throw not_kept_error(
        fmt::format("{} does not hold what was asked: it cannot be written, or another program has "
                    "changed it",
                    ravo::options_path));
}

// What the setting is to be without the connection; the backup takes a gateway's place.
gateway_setting without(const gateway_setting& setting, const connection& gone) {
    if (setting.gateway == gone) return {setting.backup, std::nullopt};
    if (setting.backup == gone) return {setting.gateway, std::nullopt};
    return setting;
}

void print_drop(const gateway_setting& before, const gateway_setting& after,
                const connection& gone) {
    const std::string name = name_of(gone);
    if (before == after) {
        fmt::print("{} is neither the gateway nor its backup: nothing changed\n", name);
    } else if (before.gateway != gone) {
        fmt::print("{} was the backup: there is no backup any more\n", name);
    } else if (after.gateway) {
        fmt::print("{} was the gateway: its backup {} takes over\n", name, name_of(*after.gateway));
    } else {
        fmt::print("{} was the gateway: there is no gateway any more\n", name);
    }
}

// Prints the setting, and the VPN connection that carries the default route now. An interrupted
// change is told on standard error, and so is a damaged file.
exit_status show_gateway(bool as_json) {
    const options_document options = read_options();
    const default_route route = ask_default_route();
    (as_json ? print_all_as_json : print_all)(options, route);
    tell_left_copy(options);
    if (options.state != options_state::damaged) return done;
    fmt::print(stderr, "ravoctl: {}\n", damage_message(options));
    return failed_here;
}

// Takes an interrupted change back, has the store save the setting, and prints it. Throws
// usage_error for what the store would take and could not use, not_kept_error when the file does
// not hold the setting afterwards, and std::runtime_error when nothing could be done.
exit_status set_gateway(const gateway_request& request) {
    const gateway_setting setting = parse_request(request);
    const json_ptr update(json_pack("{s:o}", "gw_setting", to_section(setting).release()));
    const json_text raw(json_dumps(update.get(), 0));
    if (raw == nullptr) throw std::bad_alloc();  // the store would empty the file
    const file_lock lock = lock_out_other_tools();
    (void)make_good_interrupted_change();
    const json_ptr before = complete_options(request.reset);
    const json_ptr after = change_or_have_old_setting_read(
        before.get(), [&raw] { (void)GlobalConfig().save(raw.get()); });
    check_kept(json_equal(json_object_get(after.get(), "gw_setting"),
                          json_object_get(update.get(), "gw_setting")) != 0);
    print_setting(setting, have_setting_read());
    return done;
}

// The same for taking a connection out of the setting; tells what came of it.
exit_status drop_gateway(const connection_words& words) {
    const connection gone = parse_connection(words);
    const file_lock lock = lock_out_other_tools();
    const bool is_taken_back = make_good_interrupted_change();
    const options_document options = read_options();
    if (options.state == options_state::damaged) throw std::runtime_error(damage_message(options));
    const gateway_setting before = read_setting(options.root.get());
    const gateway_setting expected = without(before, gone);
    if (expected != before) {
        const json_ptr after = change_or_have_old_setting_read(options.root.get(), [&gone] {
            (void)GlobalConfig().disable_gateway(gone.type, gone.index);
        });
        check_kept(read_setting(after.get()) == expected);
    }
    if (expected != before || is_taken_back) (void)have_setting_read();
    print_drop(before, expected, gone);
    return done;
}

// --- The command line ---------------------------------------------------------------------------

cli_command declare_set(command_line& line, cli_command gateway) {
    const auto request = std::make_shared<gateway_request>();
    const cli_command set =
        gateway.add_subcommand("set", "Make a VPN connection the default gateway");
    set.add_option("gateway", request->gateway, "Type and index, or \"none\"")
        .expected(1, 2)
        .option_text("TYPE INDEX | none REQUIRED")
        .required();
    set.add_option("--backup", request->backup, "The connection that stands in for it")
        .expected(2, 2)
        .type_name("TYPE INDEX");
    set.add_option("--delay", request->delay,
                   "How long the backup goes on when the gateway is back: never, 0, 1, 5 or 10; "
                   "0 if not given")
        .type_name("CODE");
    set.add_flag("--reset", request->reset, "Begin a damaged options file anew");
    line.runs(set, [request] { return set_gateway(*request); });
    return set;
}

cli_command declare_drop(command_line& line, cli_command gateway) {
    const auto gone = std::make_shared<connection_words>();
    const cli_command drop =
        gateway.add_subcommand("drop", "Take a connection out; the backup takes a gateway's place");
    drop.add_option("connection", *gone, "Type and index")
        .expected(2, 2)
        .option_text("TYPE INDEX REQUIRED")
        .required();
    line.runs(drop, [gone] { return drop_gateway(*gone); });
    return drop;
}

}  // namespace

void declare_gateway(command_line& line) {
    constexpr char json_help[] = "Print a JSON object";
    const auto as_json = std::make_shared<bool>(false);
    const cli_command gateway = line.add_subcommand("gateway", "Show or set the default gateway");
    gateway.require_subcommand(0, 1);
    const cli_option json = gateway.add_flag("--json", *as_json, json_help);
    const cli_command show = gateway.add_subcommand("show", "Show it, as without a subcommand");
    show.add_flag("--json", *as_json, json_help);
    for (const cli_command command : {gateway, show}) {
        line.runs(command, [as_json] { return show_gateway(*as_json); });
    }
    const std::string words = "Types, and their indexes: " + gateway_words_help() + "\n";
    for (cli_command command : {declare_set(line, gateway), declare_drop(line, gateway)}) {
        command.footer(words);
        command.excludes(json);
    }
}
