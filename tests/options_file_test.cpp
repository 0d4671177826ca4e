// The options file and its command front end, with real files, real locks and a network service on
// the real bus.
#include "global_options.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "support/files.h"
#include "support/vpn_options.h"

using namespace vpn_options;
using bus_test::process;
using ravo::GlobalConfig;
using texts = std::vector<std::string>;
namespace fs = std::filesystem;

namespace {

constexpr char gateway_members[] =
    R"("as_gw_en": 1, "gw1": {"type": 1024, "index": 3, "sname": "OPENVPN_CLIENT3"})";

const std::string with_gateway = with_setting(gateway_members);
const texts gateway_events = {profile_call("OPENVPN_CLIENT3"), gateway_set("OpenVPN", "office"),
                              update_call};

expected_line failed_merge(const std::string& dump) {
    return log_of("save", "Update raw_t to root failed. " + dump + "\n");
}
expected_line failed_write(const std::string& dump) {
    return log_of("save", "Write " + dump + " to file failed\n");
}

int save(const std::string& raw) { return GlobalConfig().save(raw.c_str()); }
std::string load() { return take_text(GlobalConfig().load()); }
std::string load(const char* section) { return take_text(GlobalConfig().load(section)); }

class options_file : public world {
  protected:
    // Makes the lock unobtainable at once.
    static void spoil_lock() {
        fs::remove(lock_path);
        fs::create_directory(lock_path);
    }
};

// What jansson holds at the moment. Declared before the first value is made.
class json_memory {
  public:
    json_memory() { json_set_alloc_funcs(take, give_back); }
    ~json_memory() { json_set_alloc_funcs(malloc, free); }
    json_memory(const json_memory&) = delete;
    json_memory& operator=(const json_memory&) = delete;

    static int blocks() { return held; }

  private:
    static void* take(size_t size) {
        ++held;
        return malloc(size);
    }
    static void give_back(void* block) {
        if (block != nullptr) --held;
        free(block);
    }
    static inline std::atomic<int> held = 0;
};

}  // namespace

// --- The template -------------------------------------------------------------------------------

TEST_F(options_file, template_is_version_1_and_no_gateway) {
    EXPECT_EQ(take_text(GlobalConfig().get_tmpl()), template_text);
    EXPECT_EQ(stored(), "(none)") << "no file is needed or made";
    EXPECT_FALSE(fs::exists(lock_path));
    EXPECT_EQ(read_file(log_path), "");
}

TEST_F(options_file, template_has_an_integer_and_a_string) {
    json_t* document = GlobalConfig().get_tmpl();
    EXPECT_TRUE(json_is_string(json_object_get(json_object_get(document, "global"), "version")));
    EXPECT_TRUE(
        json_is_integer(json_object_get(json_object_get(document, "gw_setting"), "as_gw_en")));
    json_decref(document);
}

TEST_F(options_file, each_template_is_a_new_one_of_the_caller) {
    GlobalConfig config;
    json_t* changed = config.get_tmpl();
    EXPECT_EQ(changed->refcount, 1U);
    json_object_clear(json_object_get(changed, "gw_setting"));
    EXPECT_EQ(take_text(config.get_tmpl()), template_text);
    json_decref(changed);
}

TEST_F(options_file, store_has_no_state_but_the_file) {
    static_assert(std::is_empty_v<GlobalConfig> && std::is_default_constructible_v<GlobalConfig>);
    GlobalConfig first;
    GlobalConfig second;
    start_case(template_text);
    EXPECT_EQ(first.save(R"({"global": {"version": "2"}})"), 0);
    EXPECT_EQ(take_text(second.load("global")), R"({"version": "2"})");
    EXPECT_EQ(take_text(first.load("global")), R"({"version": "2"})");
}

// --- Loading the document -----------------------------------------------------------------------

TEST_F(options_file, loads_what_the_bytes_say) {
    const std::vector<expected_line> quiet;
    const std::vector<expected_line> told = {no_object()};
    const std::string deep = std::string(5000, '[') + std::string(5000, ']');
    struct {
        const char* name;
        std::optional<std::string> bytes;
        std::string document;
        std::vector<expected_line> log;
    } const cases[] = {
        {"no file", std::nullopt, "{}", {no_options_file()}},
        {"empty", "", template_text, told},
        {"white space", " \n", template_text, told},
        {"object without sections", "{}", "{}", quiet},
        {"array", "[]", template_text, told},
        {"array of an object", R"([{"global": {}}])", template_text, told},
        {"null", "null", template_text, told},
        {"number", "5", template_text, told},
        {"string", R"("global")", template_text, told},
        {"half an object", R"({"global": {"version": "1"})", template_text, told},
        {"trailing text", R"({"global": {}} x)", template_text, told},
        {"second object", "{}{}", template_text, told},
        {"trailing NUL", std::string("{}\0", 3), template_text, told},
        {"byte order mark", "\xef\xbb\xbf{}", template_text, told},
        {"no UTF-8", "{\"global\": \"\xff\"}", template_text, told},
        {"too deep", R"({"global": )" + deep + "}", template_text, told},
        {"number too large", R"({"global": 1e999})", template_text, told},
        {"trailing line feed", "{}\n", "{}", quiet},
        {"white space between", " {\n\"global\" :\t{ } } ", R"({"global": {}})", quiet},
        {"gateway", with_gateway, with_gateway, quiet},
        {"sections of any kind", R"({"gw_setting": 5, "global": null, "": [1.5]})",
         R"({"gw_setting": 5, "global": null, "": [1.5]})", quiet},
        {"member twice", R"({"global": 1, "global": 2})", R"({"global": 2})", quiet},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        start_case(c.bytes);
        EXPECT_EQ(load(), c.document);
        expect_log(c.log);
        EXPECT_EQ(stored(), c.bytes.value_or("(none)")) << "loading changes nothing";
        EXPECT_EQ(events(), texts{});
    }
}

TEST_F(options_file, folder_in_its_place_gives_the_template) {
    fs::create_directory(path);
    EXPECT_EQ(load(), template_text) << "a folder can be opened, but not be read";
    expect_log({no_object()});
}

TEST_F(options_file, pipe_in_its_place_is_not_waited_for) {
    ASSERT_EQ(mkfifo(path, 0644), 0);
    EXPECT_EQ(load(), template_text);
    EXPECT_EQ(save(with_gateway), 0);
    expect_log({no_object(), no_object()});
    EXPECT_EQ(events(), texts());
    EXPECT_TRUE(fs::is_fifo(path));
}

TEST_F(options_file, that_may_not_be_read_gives_an_empty_object) {
    start_case(template_text);
    ASSERT_EQ(chmod(path, 0200), 0);
    EXPECT_EQ(load(), "{}");
    expect_log({no_options_file()});
}

TEST_F(options_file, link_to_a_missing_file_gives_an_empty_object) {
    fs::create_symlink("/tmp/nowhere", path);
    EXPECT_EQ(load(), "{}");
    expect_log({no_options_file()});
}

TEST_F(options_file, without_a_lock_gives_an_empty_object) {
    start_case(template_text);
    spoil_lock();
    EXPECT_EQ(load(), "{}");
    EXPECT_EQ(load("global"), "{}");
    expect_log({no_lock(), no_lock()});
    EXPECT_EQ(stored(), template_text);
}

TEST_F(options_file, without_its_folder_gives_an_empty_object) {
    fs::rename("/etc/config", "/etc/elsewhere");
    EXPECT_EQ(load(), "{}");
    EXPECT_EQ(save(template_text), 0);
    expect_log({no_lock(), no_lock()});
    EXPECT_FALSE(fs::exists("/etc/config"));
}

TEST_F(options_file, three_messages_of_loading_run_into_each_other) {
    (void)load();
    write_file(path, "[]");
    (void)load();
    spoil_lock();
    (void)load();
    EXPECT_EQ(count_of(read_file(log_path), "\n"), 0U);
    expect_log({no_options_file(), no_object(), no_lock()});
}

TEST_F(options_file, document_belongs_to_the_caller_and_to_nobody_else) {
    for (const auto& bytes : {std::optional<std::string>(), std::optional<std::string>("[]"),
                              std::optional<std::string>(with_gateway)}) {
        start_case(bytes);
        const json_memory memory;
        json_t* document = GlobalConfig().load();
        EXPECT_EQ(document->refcount, 1U);
        EXPECT_GT(json_memory::blocks(), 0);
        json_decref(document);
        EXPECT_EQ(json_memory::blocks(), 0);
    }
}

// --- Loading a section --------------------------------------------------------------------------

TEST_F(options_file, section_is_any_member_of_the_document) {
    start_case(R"({"global": {"version": "7"}, "gw_setting": [1, 2], "": "empty", "no": null})");
    EXPECT_EQ(load("global"), R"({"version": "7"})");
    EXPECT_EQ(load("gw_setting"), "[1, 2]");
    EXPECT_EQ(load(""), R"("empty")");
    EXPECT_EQ(load("no"), "null") << "null is a section, too";
    EXPECT_EQ(load("version"), "{}") << "only the top level has sections";
    EXPECT_EQ(load("GLOBAL"), "{}");
    EXPECT_EQ(load("\xff"), "{}");
    EXPECT_EQ(read_file(log_path), "");
}

TEST_F(options_file, section_of_no_name_is_an_empty_object_without_a_look_at_the_file) {
    json_t* section = GlobalConfig().load(nullptr);
    EXPECT_EQ(section->refcount, 1U);
    EXPECT_EQ(take_text(section), "{}");
    EXPECT_FALSE(fs::exists(lock_path));
    EXPECT_EQ(read_file(log_path), "");
}

TEST_F(options_file, section_without_a_file_or_of_the_template) {
    EXPECT_EQ(load("gw_setting"), "{}");
    expect_log({no_options_file()});
    start_case("[]");
    EXPECT_EQ(load("gw_setting"), R"({"as_gw_en": 0})");
    EXPECT_EQ(load("nothing"), "{}");
    expect_log({no_object(), no_object()});
}

TEST_F(options_file, section_stays_valid_for_the_life_of_the_process) {
    GlobalConfig config;
    start_case(with_gateway);
    json_t* kept = config.load("gw_setting");
    EXPECT_EQ(kept->refcount, 2U) << "one reference is the document's, one the caller's";
    start_case(template_text);
    json_t* other = config.load("gw_setting");
    EXPECT_NE(other, kept) << "freshly loaded";
    for (json_t* section : {kept, other}) json_decref(section);
    for (int n = 0; n < 10; ++n) (void)load("gw_setting");
    EXPECT_EQ(take_text(json_incref(kept)), std::string("{") + gateway_members + "}");
    EXPECT_EQ(take_text(json_incref(other)), R"({"as_gw_en": 0})");
}

TEST_F(options_file, section_that_is_missing_keeps_no_document) {
    const json_memory memory;
    start_case(template_text);
    json_t* section = GlobalConfig().load("nothing");
    EXPECT_EQ(section->refcount, 1U);
    json_decref(section);
    EXPECT_EQ(json_memory::blocks(), 0);
    json_decref(GlobalConfig().load(nullptr));
    EXPECT_EQ(json_memory::blocks(), 0);
    json_decref(GlobalConfig().load("global"));
    EXPECT_GT(json_memory::blocks(), 0) << "one that is found does";
}

// --- Loading a section into a tree --------------------------------------------------------------

TEST_F(options_file, section_becomes_a_leaf_of_the_tree) {
    start_case(with_gateway);
    JsonValue data;
    data["other"] = 1;
    EXPECT_EQ(GlobalConfig().load("gw_setting", data), 0);
    const JsonValue* leaf = static_cast<JsonValue::JsonObject*>(data.value)->at("gw_setting");
    EXPECT_EQ(leaf->type, JsonValue::JSON_T_TYPE);
    EXPECT_EQ(text_of(data), R"({"gw_setting":{"as_gw_en":1,"gw1":{"type":1024,"index":3,)"
                             R"("sname":"OPENVPN_CLIENT3"}},"other":1})");
}

TEST_F(options_file, missing_section_becomes_an_empty_object_of_the_tree) {
    JsonValue data(5);
    EXPECT_EQ(GlobalConfig().load("gw_setting", data), 0);
    EXPECT_EQ(text_of(data), R"({"gw_setting":{}})");
    expect_log({no_options_file()});
    start_case("[]");
    EXPECT_EQ(GlobalConfig().load("nothing", data), 0);
    EXPECT_EQ(GlobalConfig().load("", data), 0);
    EXPECT_EQ(text_of(data), R"({"":{},"gw_setting":{},"nothing":{}})");
    EXPECT_EQ(GlobalConfig().load("gw_setting", data), 0);
    EXPECT_EQ(text_of(data), R"({"":{},"gw_setting":{"as_gw_en":0},"nothing":{}})");
    expect_log({no_object(), no_object(), no_object()});
    spoil_lock();
    EXPECT_EQ(GlobalConfig().load("gw_setting", data), 0);
    EXPECT_EQ(text_of(data), R"({"":{},"gw_setting":{},"nothing":{}})");
}

TEST_F(options_file, section_of_no_name_leaves_the_tree_alone) {
    JsonValue data("text");
    const void* payload = data.value;
    EXPECT_EQ(GlobalConfig().load(nullptr, data), -1);
    EXPECT_EQ(data.type, JsonValue::STRING_TYPE);
    EXPECT_EQ(data.value, payload);
    EXPECT_EQ(text_of(data), R"("text")");
    EXPECT_FALSE(fs::exists(lock_path)) << "the file is not looked at";
    EXPECT_EQ(read_file(log_path), "");
}

TEST_F(options_file, tree_frees_the_section_and_nothing_keeps_the_document) {
    start_case(with_gateway);
    const json_memory memory;
    for (const char* section : {"gw_setting", "nothing"}) {
        JsonValue data;
        EXPECT_EQ(GlobalConfig().load(section, data), 0);
        const JsonValue* leaf = static_cast<JsonValue::JsonObject*>(data.value)->at(section);
        EXPECT_EQ(static_cast<json_t*>(leaf->value)->refcount, 1U);
        EXPECT_EQ(GlobalConfig().load(section, data), 0) << "in the place of the first";
    }
    EXPECT_EQ(json_memory::blocks(), 0);
}

// --- Saving -------------------------------------------------------------------------------------

TEST_F(options_file, save_merges_sections) {
    const std::string update = R"({"gw_setting": {)" + std::string(gateway_members) + "}}";
    const texts quiet = {update_call};
    struct {
        const char* name;
        std::optional<std::string> before;
        std::string raw;
        std::string after;
        texts events;
        std::vector<expected_line> log{};
    } const cases[] = {
        {"nothing new", template_text, "{}", template_text, quiet},
        {"one section", template_text, update, with_gateway, gateway_events},
        {"both, the document's order stays", template_text,
         R"({"gw_setting": {"as_gw_en": 0}, "global": {"version": "2"}})",
         R"({"global": {"version": "2"}, "gw_setting": {"as_gw_en": 0}})", quiet},
        {"another order of the document", R"({"gw_setting": 1, "global": 2})",
         R"({"global": 3, "gw_setting": 4})", R"({"gw_setting": 4, "global": 3})", quiet},
        {"a section is replaced whole", with_gateway, R"({"gw_setting": {"as_gw_en": 0}})",
         template_text, quiet},
        {"by an empty one", with_gateway, R"({"gw_setting": {}, "global": {}})",
         R"({"global": {}, "gw_setting": {}})", quiet},
        {"by any value", with_gateway, R"({"gw_setting": null, "global": [true]})",
         R"({"global": [true], "gw_setting": null})", quiet},
        {"members of a section are taken as they are", template_text,
         R"({"gw_setting": {"z": 1, "as_gw_en": "1", "a": {"failover_en": -7}}})",
         with_setting(R"("z": 1, "as_gw_en": "1", "a": {"failover_en": -7})"), quiet},
        {"an unknown section is ignored", template_text, R"({"other": {"version": "2"}})",
         template_text, quiet},
        {"members of sections are no sections", template_text, R"({"as_gw_en": 1})", template_text,
         quiet},
        {"beside an unknown section notifications are sent", template_text,
         R"({"other": 1, "gw_setting": {)" + std::string(gateway_members) + "}}", with_gateway,
         gateway_events},
        {"a section of the file's own", R"({"own": 1})", R"({"own": {"x": 2}, "global": {}})",
         R"({"own": {"x": 2}})", quiet},
        {"a section that the file lacks", R"({"global": {}})", update, R"({"global": {}})",
         gateway_events},
        {"a gateway that was there already", with_gateway, update, with_gateway, gateway_events},
        {"a gateway that the update does not name", with_gateway, R"({"global": {}})",
         R"({"global": {}, "gw_setting": {)" + std::string(gateway_members) + "}}", quiet},
        {"section twice in the update", template_text, R"({"global": 1, "global": 2})",
         R"({"global": 2, "gw_setting": {"as_gw_en": 0}})", quiet},
        {"white space goes", "{ \"global\":\n{},\n\t\"gw_setting\": {} }\n", "\n{ }\n",
         R"({"global": {}, "gw_setting": {}})", quiet},
        {"numbers and texts stay", R"({"global": 0})",
         R"({"global": [1.0, 0.1, -0.0, 9223372036854775807, "\u00e9\n\"\\/", "%s%n"]})",
         "{\"global\": [1.0, 0.10000000000000001, -0.0, 9223372036854775807, "
         "\"\xc3\xa9\\n\\\"\\\\/\", \"%s%n\"]}",
         quiet},
        {"no file", std::nullopt, update, "{}", gateway_events, {no_options_file()}},
        {"no file and no gateway", std::nullopt, template_text, "{}", quiet, {no_options_file()}},
        {"a document without sections", "{}", update, "{}", gateway_events},
        {"an empty file", "", update, with_gateway, gateway_events, {no_object()}},
        {"no object in the file", "[]", "{}", template_text, quiet, {no_object()}},
        {"half a document",
         R"({"global": {"version": "9"})",
         update,
         with_gateway,
         gateway_events,
         {no_object()}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        start_case(c.before);
        EXPECT_EQ(save(c.raw), 0);
        EXPECT_EQ(stored(), c.after);
        EXPECT_EQ(events(), c.events);
        expect_log(c.log);
    }
}

TEST_F(options_file, save_of_no_object_empties_the_file) {
    struct {
        const char* raw;
        const char* dump;
    } const cases[] = {
        {nullptr, "(null)"},
        {"", "(null)"},
        {"not JSON", "(null)"},
        {"{", "(null)"},
        {"{} x", "(null)"},
        {"{'global': 1}", "(null)"},
        {"5", "(null)"},
        {"\"global\"", "(null)"},
        {"null", "(null)"},
        {"{\"global\": \"\xff\"}", "(null)"},
        {"[]", "[]"},
        {R"([{"gw_setting":{"as_gw_en":1}}])", R"([{"gw_setting": {"as_gw_en": 1}}])"},
        {R"(["%s%n"])", R"(["%s%n"])"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.dump);
        start_case(with_gateway);
        EXPECT_EQ(GlobalConfig().save(c.raw), 0);
        EXPECT_EQ(stored(), "");
        EXPECT_EQ(events(), texts{}) << "no notification and no call";
        expect_log({failed_merge(c.dump)});
        EXPECT_EQ(load(), template_text);
    }
}

TEST_F(options_file, save_of_no_object_makes_an_empty_file_where_there_is_none) {
    EXPECT_EQ(save("not JSON"), 0);
    EXPECT_EQ(stored(), "");
    expect_log({no_options_file(), failed_merge("(null)")});
}

TEST_F(options_file, save_without_a_backup_and_with_one_tells_what_is_new) {
    start_case(template_text);
    EXPECT_EQ(save(R"({"gw_setting": {)" + std::string(gateway_members) +
                   R"(, "failover_en": 1, "failover_interval": 5,
                       "gw2": {"type": 256, "index": 1, "sname": "PPTP_CLIENT1"}}})"),
              0);
    EXPECT_EQ(events(), (texts{profile_call("OPENVPN_CLIENT3"), gateway_set("OpenVPN", "office"),
                               profile_call("PPTP_CLIENT1"), backup_set("PPTP", "home"),
                               delay_set("5"), update_call}));
}

TEST_F(options_file, save_goes_on_without_a_notifier) {
    start_case(template_text);
    remove_notifier();
    EXPECT_EQ(save(with_gateway), 0);
    EXPECT_EQ(stored(), with_gateway);
    EXPECT_EQ(events(), (texts{profile_call("OPENVPN_CLIENT3"), update_call}));
    EXPECT_EQ(read_file(log_path), "");
}

TEST_F(options_file, network_service_that_is_down_is_told_after_saving) {
    stop_network_service();
    start_case(template_text);
    EXPECT_EQ(save(with_gateway), 0);
    EXPECT_EQ(stored(), with_gateway);
    EXPECT_EQ(events(), (texts{gateway_set("OpenVPN", "")}));
    expect_log(
        {failed_call(profile_call("OPENVPN_CLIENT3")), failed_call(update_call), failed_update()});
}

TEST_F(options_file, network_service_that_refuses_the_update_is_told) {
    struct {
        const char* reply;
        expected_line line;
    } const cases[] = {
        {R"({"error": 1, "data": []})",
         log_of("easy_zb_call",
                "easy_zb_call: NetworkService.external_dev.update_vpn_gw  failed\n")},
        {"[]", log_of("easy_zb_call", "easy_zb_call: root isn't an object.\n")},
        {"{}", log_of("easy_zb_call", "easy_zb_call: val isn't an integer.\n")},
    };
    for (const auto& c : cases) {
        start_case(template_text);
        replies["external_dev.update_vpn_gw"] = c.reply;
        EXPECT_EQ(save("{}"), 0);
        EXPECT_EQ(events(), texts{update_call});
        EXPECT_EQ(stored(), template_text);
        expect_log({c.line, failed_update()});
    }
}

// --- Files that cannot be written ---------------------------------------------------------------

TEST_F(options_file, save_where_the_file_may_not_be_written_does_nothing) {
    start_case(template_text);
    ASSERT_EQ(chmod(path, 0400), 0);
    EXPECT_EQ(save(with_gateway), 0);
    EXPECT_EQ(GlobalConfig().save(nullptr), 0);
    EXPECT_EQ(stored(), template_text);
    EXPECT_EQ(events(), texts{});
    EXPECT_EQ(read_file(log_path), "") << "nothing is logged";
    EXPECT_TRUE(is_free(LOCK_EX));
}

TEST_F(options_file, save_onto_a_folder_does_nothing) {
    fs::create_directory(path);
    EXPECT_EQ(save(with_gateway), 0);
    EXPECT_EQ(events(), texts{});
    expect_log({no_object()});
}

TEST_F(options_file, save_of_a_file_that_may_not_be_read_stores_an_empty_object) {
    start_case(template_text);
    ASSERT_EQ(chmod(path, 0200), 0);
    EXPECT_EQ(save(with_gateway), 0);
    ASSERT_EQ(chmod(path, 0600), 0);
    EXPECT_EQ(stored(), "{}");
    EXPECT_EQ(events(), gateway_events);
    expect_log({no_options_file()});
}

TEST_F(options_file, save_without_a_lock_does_nothing) {
    start_case(template_text);
    spoil_lock();
    EXPECT_EQ(save(with_gateway), 0);
    EXPECT_EQ(GlobalConfig().save(nullptr), 0);
    EXPECT_EQ(stored(), template_text);
    EXPECT_EQ(events(), texts{});
    expect_log({no_lock(), no_lock()});  // of loading
}

namespace {

// The options file on the small disk; its lock file lies beside it.
void move_to_small_disk(const std::string& bytes) {
    write_file("/small/vpn_options.conf", bytes);
    fs::create_symlink("/small/vpn_options.conf", path);
    (void)load();
    ASSERT_TRUE(fs::exists("/small/vpn_options.conf.lck"));
}

void fill_small_disk() {
    const bus_test::file rest(open("/small/rest", O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    const std::string block(4096, 'x');
    while (write(rest.get(), block.data(), block.size()) > 0) {
    }
    ASSERT_EQ(errno, ENOSPC);
}

}  // namespace

TEST_F(options_file, full_disk_that_shows_while_writing) {
    move_to_small_disk(template_text);
    fill_small_disk();
    const std::string large = R"({"global": {"version": ")" + std::string(65536, 'v') + "\"}, ";
    EXPECT_EQ(save(large + R"("gw_setting": {)" + gateway_members + "}}"), 0);
    EXPECT_EQ(events(), texts{}) << "no notification and no call";
    expect_log({failed_write(large + R"("gw_setting": {)" + gateway_members + "}}")});
    forget_log();
    EXPECT_EQ(load(), template_text) << "what is left of it is no document";
    expect_log({no_object()});
}

TEST_F(options_file, full_disk_that_shows_while_closing) {
    move_to_small_disk(template_text);
    // The document is in the stream's buffer by now, and the file is empty.
    on_event = fill_small_disk;
    EXPECT_EQ(save(with_gateway), 0);
    EXPECT_EQ(events(), (texts{profile_call("OPENVPN_CLIENT3"), gateway_set("OpenVPN", "office")}))
        << "the notifications are out, but the gateway is not set";
    expect_log({failed_write(with_gateway)});
    EXPECT_EQ(stored(), "");
    forget_log();
    EXPECT_EQ(load(), template_text);
    expect_log({no_object()});
}

TEST_F(options_file, disk_with_room_again_takes_the_next_update) {
    move_to_small_disk("");
    fill_small_disk();
    EXPECT_EQ(save(template_text), 0);
    EXPECT_EQ(stored(), "");
    forget_log();
    fs::remove("/small/rest");
    EXPECT_EQ(save(with_gateway), 0);
    EXPECT_EQ(stored(), with_gateway);
    EXPECT_TRUE(fs::is_symlink(path)) << "written in its place";
    expect_log({no_object()});
}

// --- Locks --------------------------------------------------------------------------------------

TEST_F(options_file, is_read_under_a_shared_lock_with_descriptors_that_an_exec_closes) {
    start_case(template_text);
    int readings = 0;
    on_reading = [&] {
        ++readings;
        EXPECT_TRUE(is_free(LOCK_SH)) << "others may read";
        EXPECT_FALSE(is_free(LOCK_EX)) << "nobody may write";
        EXPECT_EQ(descriptors(), (texts{path, lock_path}));
    };
    EXPECT_EQ(load(), template_text);
    EXPECT_EQ(readings, 1);
    EXPECT_TRUE(is_free(LOCK_EX));
    EXPECT_EQ(descriptors(), texts{});
}

TEST_F(options_file, lock_is_held_while_notifications_are_made_and_free_for_the_update) {
    start_case(template_text);
    struct moment {
        bool may_read;
        std::string bytes;
        texts descriptors;
    };
    std::vector<moment> moments;
    on_event = [&moments] { moments.push_back({is_free(LOCK_SH), stored(), descriptors()}); };
    EXPECT_EQ(save(with_gateway), 0);
    ASSERT_EQ(events(), gateway_events);
    ASSERT_EQ(moments.size(), 3U);
    for (const size_t n : {0U, 1U}) {
        EXPECT_FALSE(moments[n].may_read) << n;
        EXPECT_EQ(moments[n].bytes, "") << "what a reader without the lock would see";
        EXPECT_EQ(moments[n].descriptors, (texts{path, lock_path})) << n;
    }
    EXPECT_TRUE(moments[2].may_read);
    EXPECT_EQ(moments[2].bytes, with_gateway);
    EXPECT_EQ(moments[2].descriptors, texts{});
}

TEST_F(options_file, lock_is_free_after_each_end_of_saving) {
    for (const char* raw : {"{}", "not JSON"}) {
        start_case(template_text);
        EXPECT_EQ(save(raw), 0);
        EXPECT_TRUE(is_free(LOCK_EX)) << raw;
    }
}

TEST_F(options_file, another_s_update_between_loading_and_writing_is_overwritten) {
    start_case(template_text);
    on_reading = [] { replace_file(R"({"global": {"version": "2"}, "gw_setting": {}})"); };
    EXPECT_EQ(save(R"({"gw_setting": {"as_gw_en": 0}})"), 0);
    EXPECT_EQ(stored(), template_text);
}

namespace {

// Another process that holds the lock until this ends.
class lock_holder {
  public:
    explicit lock_holder(int operation)
        : holder([this, operation] {
              const int lock = open(lock_path, O_RDONLY | O_CREAT | O_CLOEXEC, 0666);
              ASSERT_EQ(flock(lock, operation), 0);
              is_locked.set();
              pause();
          }) {
        EXPECT_TRUE(is_locked.wait());
    }

  private:
    bus_test::event is_locked;  // before the process, which uses it
    process holder;
};

// Runs the steps at the same time and expects each to give up in bounded time.
void expect_all_give_up(const std::vector<std::function<void()>>& steps) {
    const auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> threads;
    threads.reserve(steps.size());
    for (const auto& step : steps) threads.emplace_back(step);
    for (std::thread& t : threads) t.join();
    const auto taken = std::chrono::steady_clock::now() - start;
    EXPECT_GE(taken, std::chrono::milliseconds(4900));
    EXPECT_LT(taken, std::chrono::seconds(20));
}

}  // namespace

TEST_F(options_file, save_gives_up_without_a_word_while_another_process_reads) {
    start_case(with_gateway);
    const lock_holder reader(LOCK_SH);
    expect_all_give_up({[] { EXPECT_EQ(save(template_text), 0); },
                        [] { EXPECT_EQ(GlobalConfig().save(nullptr), 0); },
                        [] { EXPECT_EQ(save("{}"), 0); }});
    EXPECT_EQ(stored(), with_gateway);
    EXPECT_EQ(events(), texts{});
    EXPECT_EQ(read_file(log_path), "");
    EXPECT_EQ(load(), with_gateway) << "readers do not hinder readers";
}

TEST_F(options_file, load_gives_up_while_another_process_writes) {
    start_case(template_text);
    const lock_holder writer(LOCK_EX);
    JsonValue data;
    expect_all_give_up({[] { EXPECT_EQ(load(), "{}"); }, [] { EXPECT_EQ(load("global"), "{}"); },
                        [&data] { EXPECT_EQ(GlobalConfig().load("global", data), 0); }});
    EXPECT_EQ(text_of(data), R"({"global":{}})");
    expect_log({no_lock(), no_lock(), no_lock()});
}

namespace {

// Loads until it has seen each of the documents some times, and nothing else.
void see_both(const std::string& one, const std::string& other) {
    std::map<std::string, int> seen;
    while (!testing::Test::HasFailure() && (seen[one] < 20 || seen[other] < 20)) {
        const std::string document = load();
        EXPECT_TRUE(document == one || document == other) << document;
        ++seen[document];
    }
}

}  // namespace

TEST_F(options_file, reader_never_sees_half_of_it) {
    const std::string other = with_setting(std::string(gateway_members) + R"(, "long": ")" +
                                           std::string(6000, 'x') + '"');
    start_case(with_gateway);
    remove_notifier();
    // No thread while the reader is forked: it might hold the sanitizers' allocator.
    stop_network_service();
    process reader([&] { see_both(with_gateway, other); });
    std::atomic<bool> is_done = false;
    std::thread waiter([&] {
        EXPECT_EQ(reader.wait(), 0) << "what it saw stands above";
        is_done = true;
    });
    for (int n = 0; !is_done; ++n) EXPECT_EQ(save(n % 2 == 0 ? other : with_gateway), 0);
    waiter.join();
}

// --- The front end ------------------------------------------------------------------------------

namespace {

// What the front end prints for these arguments.
std::string printed(const texts& arguments) {
    std::vector<std::string> words = arguments;
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    testing::internal::CaptureStdout();
    EXPECT_EQ(cmd_global_opt(argv[0], static_cast<int>(words.size()), argv.data()), 0);
    return testing::internal::GetCapturedStdout();
}

struct output {
    std::string text;  // of both streams
    int status;        // as waitpid tells it
    bool operator==(const output&) const = default;
};

// The same of the program, with the arguments quoted for a shell.
output run_program(const std::string& arguments) {
    (void)setenv("ASAN_OPTIONS", "fast_unwind_on_malloc=0", 1);
    FILE* out = popen((VPN_GLOBAL_OPT " " + arguments + " 2>&1").c_str(), "re");
    std::string text;
    for (int c = 0; (c = fgetc(out)) != EOF;) text += static_cast<char>(c);
    return {text, pclose(out)};
}

constexpr char usage_line[] = "{\"error\": -1}\n";

std::string line_with(const std::string& data) {
    return R"({"data": )" + data + ", \"error\": 0}\n";
}

}  // namespace

TEST_F(options_file, front_end_prints_the_document_or_a_section) {
    const std::string setting = std::string("{") + gateway_members + "}";
    struct {
        const char* name;
        std::optional<std::string> bytes;
        std::optional<std::string> section;
        std::string data;
        std::vector<expected_line> log{};
    } const cases[] = {
        {"document", with_gateway, std::nullopt, with_gateway},
        {"section", with_gateway, "gw_setting", setting},
        {"other section", with_gateway, "global", R"({"version": "1"})"},
        {"unknown section", with_gateway, "version", "{}"},
        {"section without a name", with_gateway, "", "{}"},
        {"section named get", with_gateway, "get", "{}"},
        {"section with odd bytes", with_gateway, "\xff\"\n", "{}"},
        {"no file", std::nullopt, std::nullopt, "{}", {no_options_file()}},
        {"section of no file", std::nullopt, "gw_setting", "{}", {no_options_file()}},
        {"array", "[]", std::nullopt, template_text, {no_object()}},
        {"section of an array", "[]", "gw_setting", R"({"as_gw_en": 0})", {no_object()}},
        {"empty file", "", std::nullopt, template_text, {no_object()}},
        {"section that is no object", R"({"global": [1.5, "a\nb", null]})", "global",
         R"([1.5, "a\nb", null])"},
        {"letters beyond ASCII", "{\"global\": \"\xc3\xa9\"}", "global", "\"\xc3\xa9\""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        start_case(c.bytes);
        texts arguments = {"vpn_global_opt", "get"};
        if (c.section) arguments.push_back(*c.section);
        EXPECT_EQ(printed(arguments), line_with(c.data));
        expect_log(c.log);
        EXPECT_EQ(events(), texts{});
    }
}

TEST_F(options_file, front_end_prints_usage_for_anything_else) {
    start_case(template_text);
    for (const texts& arguments : std::vector<texts>{
             {"app"},
             {"app", ""},
             {"app", "set"},
             {"app", "GET"},
             {"app", "get "},
             {"app", "ge"},
             {"app", "gett"},
             {"app", "set", "gw_setting"},
             {"app", "gw_setting", "get"},
             {"get", "gw_setting"},
             {"app", "get", "gw_setting", "x"},
             {"app", "get", "gw_setting", ""},
             {"app", "get", "a", "b", "c"},
             {},
         }) {
        EXPECT_EQ(printed(arguments), usage_line) << testing::PrintToString(arguments);
    }
    EXPECT_FALSE(fs::exists(lock_path)) << "the file is not looked at";
}

TEST_F(options_file, front_end_needs_no_name_of_the_program) {
    start_case(template_text);
    char get[] = "get";
    char* argv[] = {nullptr, get, nullptr};
    testing::internal::CaptureStdout();
    EXPECT_EQ(cmd_global_opt(nullptr, 2, argv), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), line_with(template_text));
}

TEST_F(options_file, front_end_functions_print_one_line_each) {
    start_case(template_text);
    char global[] = "global";
    testing::internal::CaptureStdout();
    usage();
    get_setting(nullptr);
    get_setting(global);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              usage_line + line_with(template_text) + line_with(R"({"version": "1"})"));
}

TEST_F(options_file, program_prints_the_same_and_exits_0) {
    struct {
        std::optional<std::string> bytes;
        std::string arguments;
        std::string text;
    } const cases[] = {
        {with_gateway, "get", line_with(with_gateway)},
        {with_gateway, "get gw_setting", line_with(std::string("{") + gateway_members + "}")},
        {with_gateway, "get nothing", line_with("{}")},
        {with_gateway, "get ''", line_with("{}")},
        {std::nullopt, "get", line_with("{}")},
        {"[]", "get", line_with(template_text)},
        {with_gateway, "", usage_line},
        {with_gateway, "set", usage_line},
        {with_gateway, "get gw_setting global extra", usage_line},
        {with_gateway, "get gw_setting global", usage_line},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.arguments);
        start_case(c.bytes);
        EXPECT_EQ(run_program(c.arguments), (output{c.text, 0}));
        EXPECT_EQ(stored(), c.bytes.value_or("(none)"));
    }
}

TEST_F(options_file, program_logs_why_there_is_nothing) {
    EXPECT_EQ(run_program("get"), (output{line_with("{}"), 0}));
    const std::string log = read_file(log_path);
    EXPECT_TRUE(log.ends_with("load:Open /etc/config/vpn_options.conf failed.")) << log;
}
