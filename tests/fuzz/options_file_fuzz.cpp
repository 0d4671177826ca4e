// The options file and the gateway rules over any bytes in the file: what is read is what JSON
// says, a connection that goes away leaves whole documents, and other sections stay as they are.
//
// The network service answers nothing that is known, and notifications are counted only.
//
// Input: a byte for what is done, one for the type and one for the index; then the file's bytes.
#include <jansson.h>

#include <cstring>
#include <memory>

#include "fuzz_target.h"
#include "global_options.h"
#include "nc_msg_db.h"
#include "standin/standin.h"

// For the sanitizers, which know the place of the deliberate leak (lsan.supp) only by stacks that
// reach beyond the JSON library.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options();
extern "C" const char* __asan_default_options() { return "fast_unwind_on_malloc=0"; }

namespace {
int notifications = 0;
}

extern "C" void __wrap__ZN4ravo5nclog11notify_sendEPKNS_13nc_msg_structEz(
    const ravo::nc_msg_struct*, ...);
extern "C" void __wrap__ZN4ravo5nclog11notify_sendEPKNS_13nc_msg_structEz(
    const ravo::nc_msg_struct*, ...) {
    ++notifications;
}

namespace {

using json_ptr = std::unique_ptr<json_t, void (*)(json_t*)>;

constexpr char log_path[] = "/var/log/network/RAVO.log";

json_ptr owned(json_t* value) { return {value, json_decref}; }
json_ptr parse(const std::string& bytes) {
    return owned(json_loadb(bytes.data(), bytes.size(), 0, nullptr));
}
json_ptr stored() { return parse(fuzz::get_file(ravo::options_path)); }

void expect_read(const std::string& bytes) {
    const json_ptr expected = parse(bytes);
    ravo::GlobalConfig config;
    const json_ptr document = owned(config.load());
    const json_ptr form = owned(config.get_tmpl());
    fuzz::expect(json_equal(document.get(),
                            json_is_object(expected.get()) ? expected.get() : form.get()) == 1,
                 "the document is the file's, or the template");
    JsonValue data;
    fuzz::expect(config.load("gw_setting", data) == 0, "a section is given");
    std::string text;
    data.toString(text);
    const json_ptr printed = parse(text);
    fuzz::expect(json_object_get(printed.get(), "gw_setting") != nullptr, "it prints as JSON");
}

// The document without the section that the gateway rules write.
json_ptr without_setting(const json_ptr& document) {
    json_ptr rest = owned(json_deep_copy(document.get()));
    (void)json_object_del(rest.get(), "gw_setting");
    return rest;
}

// Whether the connection stands in the setting under the name; without a gateway, none does.
bool names(const json_t* setting, const char* gateway, ravo::TYPE type, int index) {
    const json_t* found = json_object_get(setting, gateway);
    return ravo::number<uint16_t>(found, "type") == type &&
           ravo::number<int>(found, "index") == index;
}

void expect_disabled(ravo::TYPE type, int index) {
    ravo::GlobalConfig config;
    const json_ptr before = owned(config.load());
    const std::string bytes = fuzz::get_file(ravo::options_path);
    notifications = 0;
    fuzz::expect(config.disable_gateway(type, index) == 0, "the result is 0");
    fuzz::expect(notifications <= 3, "a setting is told in three notifications at most");
    if (fuzz::get_file(ravo::options_path) == bytes) return;
    const json_ptr after = stored();
    fuzz::expect(json_is_object(after.get()), "what is written is a document");
    fuzz::expect(json_equal(without_setting(after).get(), without_setting(before).get()) == 1,
                 "other sections stay as they are");
    const json_t* setting = json_object_get(after.get(), "gw_setting");
    const json_t* old_setting = json_object_get(before.get(), "gw_setting");
    const bool had_backup = ravo::number<int>(old_setting, "failover_en") != 0;
    fuzz::expect(ravo::number<int>(setting, "failover_en") == 0, "no backup is in force");
    fuzz::expect(!had_backup || json_object_get(setting, "gw2") == nullptr, "none is left");
    const bool is_on = ravo::number<int>(setting, "as_gw_en") != 0;
    const bool was_both =
        names(old_setting, "gw1", type, index) && names(old_setting, "gw2", type, index);
    fuzz::expect(!is_on || was_both || !names(setting, "gw1", type, index),
                 "the connection is not the gateway any more");
}

// An update may be anything; what comes of it is a document, or the emptied file that is promised.
void expect_saved(const std::string& update) {
    const json_ptr raw = owned(json_loads(update.c_str(), 0, nullptr));
    ravo::GlobalConfig config;
    fuzz::expect(config.save(update.c_str()) == 0, "the result is 0");
    const std::string bytes = fuzz::get_file(ravo::options_path);
    fuzz::expect(json_is_object(raw.get()) ? json_is_object(stored().get()) : bytes.empty(),
                 "an update of no object empties the file, any other leaves a document");
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr ravo::TYPE types[] = {ravo::NONE_TYPE, ravo::PPTP_CLIENT_TYPE, ravo::L2TP_CLIENT_TYPE,
                                    ravo::OVPN_CLIENT_TYPE, ravo::TESSEL_CLIENT_TYPE};
    fuzz::input in(data, size);
    const uint8_t action = in.below(3);
    const ravo::TYPE type = types[in.below(std::size(types))];
    const int index = in.byte();
    const std::string bytes = in.rest();
    *standin() = {};
    if (action == 0) {
        fuzz::put_file(ravo::options_path, bytes);
        expect_read(bytes);
    } else if (action == 1) {
        fuzz::put_file(ravo::options_path, bytes);
        expect_disabled(type, index);
    } else {
        fuzz::put_file(ravo::options_path, R"({"global": {"version": "1"}, "gw_setting": {}})");
        expect_saved(bytes);
    }
    fuzz::expect(standin()->live_buffers == 0, "every buffer is freed");
    (void)remove(log_path);
    return 0;
}
