// Memory that runs out around the global VPN options: each allocation of each operation fails once,
// in a process of its own. The options file is then as before or as after, and nothing is kept.
#include <gtest/gtest.h>
#include <jansson.h>
#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "global_options.h"
#include "json_texts.h"
#include "nc_msg_db.h"
#include "ostra_config.h"
#include "support/alloc_fault.h"
#include "support/bus.h"
#include "support/files.h"
#include "support/recording_notifier.h"
#include "zbservice.h"

using alloc_fault::failing_allocation;

// --- The surroundings, which ask for no memory ---------------------------------------------------

namespace {

constexpr char options_path[] = "/etc/config/vpn_options.conf";
int updates = 0;        // of the network service
int notifications = 0;  // sent

constexpr std::string_view profiles =
    R"({"error": 0, "data": {"OPENVPN_CLIENT3": {"profile": "office"}}})";
constexpr std::string_view routes =
    R"({"error": 0, "data": [{"interface_type": "VPN", "ifname": "tun2003"}]})";

}  // namespace

#pragma GCC visibility push(default)
extern "C" {
int zb_call(const char* /*path*/, const char* method, zb_io* io, int /*timeout_s*/, int /*fd*/) {
    std::string_view reply = R"({"error": 0})";
    if (strcmp(method, "external_dev.list") == 0) reply = profiles;
    if (strcmp(method, "api.get_currentGWinfo") == 0) reply = routes;
    if (strcmp(method, "external_dev.update_vpn_gw") == 0) ++updates;
    (void)zb_io_realloc(io, 0);
    return zb_io_write(io, reply.data(), reply.size()) == 0 ? 0 : ZB_ERROR_MEMORY;
}
void __real__ZN4ravo5nclog11notify_sendEPKNS_13nc_msg_structEz(const ravo::nc_msg_struct* msg, ...);
void __wrap__ZN4ravo5nclog11notify_sendEPKNS_13nc_msg_structEz() { ++notifications; }
}
#pragma GCC visibility pop

namespace {

// --- Operations ----------------------------------------------------------------------------------

constexpr char with_backup[] =
    R"({"global": {"version": "7"}, "gw_setting": {"as_gw_en": 1, "gw1": {"type": 1024, "index": )"
    R"(3, "sname": "OPENVPN_CLIENT3"}, "failover_en": 1, "gw2": {"type": 256, "index": 1, "sname")"
    R"(: "PPTP_CLIENT1"}, "failover_interval": 5}, "kept": [1, 2, 3]})";
constexpr char update[] =
    R"({"gw_setting": {"as_gw_en": 1, "gw1": {"type": 1024, "index": 3, "sname": )"
    R"("OPENVPN_CLIENT3"}}})";

ravo::GlobalConfig config;

struct operation {
    const char* name;
    void (*run)();
};

const operation operations[] = {
    {"template", [] { json_decref(config.get_tmpl()); }},
    {"load", [] { json_decref(config.load()); }},
    {"load_of_missing_section", [] { json_decref(config.load("none")); }},
    {"load_into_value",
     [] {
         JsonValue value;
         (void)config.load("gw_setting", value);
     }},
    {"save", [] { EXPECT_EQ(config.save(update), 0); }},
    {"save_of_no_object", [] { EXPECT_EQ(config.save("[]"), 0); }},
    {"promotion_of_the_backup",
     [] { EXPECT_EQ(config.disable_gateway(ravo::OVPN_CLIENT_TYPE, 3), 0); }},
    {"removal_of_the_backup",
     [] { EXPECT_EQ(config.disable_gateway(ravo::PPTP_CLIENT_TYPE, 1), 0); }},
    {"current_gateway",
     [] {
         JsonValue value;
         config.get_vpn_gw(value);
     }},
    {"front_end",
     [] {
         char get[] = "get";
         char* words[] = {get, get, nullptr};
         EXPECT_EQ(cmd_global_opt(get, 2, words), 0);
     }},
    {"usage", [] { usage(); }},
};

void PrintTo(const operation& o, std::ostream* out) { *out << o.name; }
std::string name_of(const testing::TestParamInfo<operation>& info) { return info.param.name; }

class options : public testing::TestWithParam<operation> {
  protected:
    // The operation, whose n-th allocation fails. One that returns a C++ value may say so.
    static void run(size_t n) {
        updates = 0;
        notifications = 0;
        const failing_allocation fault(n);
        try {
            GetParam().run();
        } catch (const std::bad_alloc&) {
        }
    }

    struct outcome {
        std::string file;
        int updates = 0;
        int notifications = 0;
    };
    static outcome found() { return {read_file(options_path), updates, notifications}; }

    static void restore() {
        write_file(options_path, with_backup);
        std::filesystem::remove(log_path);
    }
};
INSTANTIATE_TEST_SUITE_P(each, options, testing::ValuesIn(operations), name_of);

TEST_P(options, are_whole_wherever_memory_runs_out) {
    restore();
    run(0);
    const outcome whole = found();
    const size_t descriptors = bus_test::open_descriptors();
    const auto expect_whole = [&](size_t n) {
        const size_t blocks = alloc_fault::live_blocks();
        run(n);
        EXPECT_LE(alloc_fault::live_blocks(), blocks + static_cast<size_t>(whole.notifications > 0))
            << "no more than the text of the question for a profile";
        EXPECT_EQ(bus_test::open_descriptors(), descriptors);
        const outcome got = found();
        if (got.file != whole.file) {
            EXPECT_EQ(got.file, with_backup);
            EXPECT_EQ(got.updates, 0);
        } else {
            EXPECT_TRUE(whole.updates == got.updates || !read_file(log_path).empty());
        }
        EXPECT_LE(got.notifications, whole.notifications);
        restore();
        run(0);
        EXPECT_EQ(read_file(options_path), whole.file) << "the next one";
    };
    alloc_fault::exhaust(GetParam().name, expect_whole, restore);
}

// The document that a section was found in is kept on purpose, and nothing else: the file's or,
// when there was no memory for that, the template.
TEST_F(options, section_that_was_found_keeps_its_document) {
    restore();
    const auto blocks_of = [](json_t* (*make)()) {
        const size_t blocks = alloc_fault::live_blocks();
        json_decref(make());
        return alloc_fault::live_blocks() - blocks;
    };
    const auto section = [] { return config.load("gw_setting"); };
    (void)blocks_of(section);
    const size_t document = blocks_of(section);
    const size_t template_document = blocks_of([] { return json_incref(config.get_tmpl()); });
    EXPECT_GT(document, template_document);
    alloc_fault::exhaust(
        "load_of_section",
        [&](size_t n) {
            const size_t blocks = alloc_fault::live_blocks();
            json_t* found = nullptr;
            {
                const failing_allocation fault(n);
                found = section();
            }
            size_t expected = 0;
            if (json_object_size(found) == 5) expected = document;
            if (json_object_size(found) == 1) expected = template_document;
            json_decref(found);
            EXPECT_EQ(alloc_fault::live_blocks() - blocks, expected);
        },
        restore);
}

// --- What the faults reach -----------------------------------------------------------------------

// Whether a call fails when its first allocation does, and goes well when none does.
void expect_met(const char* name, bool (*call)()) {
    EXPECT_TRUE(call()) << name;
    const failing_allocation fault(1);
    EXPECT_FALSE(call()) << name;
}

TEST(failing_allocation, is_met_in_every_library) {
    expect_met("sqlite", [] {
        void* block = sqlite3_malloc(10);
        sqlite3_free(block);
        return block != nullptr;
    });
    expect_met("jansson", [] {
        json_t* object = json_object();
        json_decref(object);
        return object != nullptr;
    });
    expect_met("C library", [] {
        FILE* file = fopen("/dev/null", "re");
        if (file != nullptr) (void)fclose(file);
        return file != nullptr;
    });
    expect_met("reallocarray", [] {
        void* block = reallocarray(nullptr, 2, 8);
        free(block);
        return block != nullptr;
    });
    expect_met("C++ library", [] {
        try {
            return !std::string(100, 'x').empty();
        } catch (const std::bad_alloc&) {
            return false;
        }
    });
    expect_met("bus", [] {
        zb_io* io = zb_io_create();
        zb_io_free(io);
        return io != nullptr;
    });
    expect_met("file locks",
               [] { return Ini_Conf_Unlock_File(Ini_Conf_Read_Lock_File(options_path)) == 0; });
}

// --- JSON texts ----------------------------------------------------------------------------------

std::string repeated(size_t count, const std::string& part) {
    std::string text;
    for (size_t n = 0; n < count; ++n) text += part;
    return text;
}

// What takes the most memory for each of its bytes, and what grows the parser's buffer the most.
TEST(json_texts, every_text_fits_into_its_workspace) {
    std::string members = "{\"\":0";
    for (int n = 0; n < 10000; ++n) members += ",\"" + std::to_string(n) + "\":{}";
    for (const std::string& text :
         {std::string("[]"), repeated(2000, "[") + repeated(2000, "]"),
          repeated(2000, "{\"\":") + "0" + repeated(2000, "}"), "[0" + repeated(20000, ",0") + "]",
          "[[]" + repeated(20000, ",[]") + "]", "[{}" + repeated(20000, ",{}") + "]", members + "}",
          "[\"" + std::string(100000, 'x') + "\"]", "[0" + repeated(9000, ",\"\\u00e9\"") + "]"}) {
        const json_ptr expected(json_loads(text.c_str(), 0, nullptr));
        const json_ptr found = parse_text(text.c_str());
        ASSERT_NE(expected, nullptr);
        EXPECT_TRUE(json_equal(found.get(), expected.get())) << text.substr(0, 20);
        EXPECT_NE(dump_json(found.get()), nullptr);
    }
}

// --- Notifications -------------------------------------------------------------------------------

TEST(notification, is_whole_when_there_is_no_memory_at_all) {
    const recording_notifier notifier;
    {
        const failing_allocation none(1, true);
        __real__ZN4ravo5nclog11notify_sendEPKNS_13nc_msg_structEz(
            &ravo::__NC_MSG_DB__[ravo::nc_user_unblocked], "alice", nullptr);
    }
    EXPECT_EQ(notifier.receive(),
              recording_notifier::words("C001", "0021", "info",
                                        "[{0}] Unblock the user: Username: {1}.", {"alice"}));
}

}  // namespace
