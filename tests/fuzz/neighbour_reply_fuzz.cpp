// Replies of other services, through the calls that read them: any bytes are a reply that is
// understood as JSON says, or none.
//
// Input: the name of a network interface, up to a zero byte; then the reply.
#include <jansson.h>

#include <cstring>
#include <memory>

#include "block_settings.h"
#include "fuzz_target.h"
#include "global_options.h"
#include "standin/standin.h"

// For the sanitizers, which know the place of the deliberate leak (lsan.supp) only by stacks that
// reach beyond the JSON library.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options();
extern "C" const char* __asan_default_options() { return "fast_unwind_on_malloc=0"; }

namespace {

using json_ptr = std::unique_ptr<json_t, void (*)(json_t*)>;

constexpr char log_path[] = "/var/log/network/RAVO.log";

json_ptr parse(const std::string& text) {
    return {json_loads(text.c_str(), 0, nullptr), json_decref};
}

// Whether a reply counts: an object whose "error" is the integer 0.
bool is_success(const json_t* reply) {
    const json_t* error = json_object_get(reply, "error");
    return json_is_object(reply) && json_is_integer(error) && json_integer_value(error) == 0;
}

void expect_call(const json_t* expected) {
    const json_ptr reply(ravo::easy_zb_call("NetworkService", "m", "{}"), json_decref);
    fuzz::expect((reply != nullptr) == is_success(expected), "a reply counts when it says so");
    fuzz::expect(!reply || json_equal(reply.get(), expected) == 1, "it is handed over whole");
}

void expect_profile_name(const std::string& interface, const json_t* expected) {
    const std::string name = ravo::get_profile_name(interface);
    const json_t* device =
        is_success(expected) ? json_object_get(json_object_get(expected, "data"), interface.c_str())
                             : nullptr;
    const char* profile = json_string_value(json_object_get(device, "profile"));
    fuzz::expect(name == (profile != nullptr ? profile : ""), "the name is the one recorded");
}

void expect_gateway(const json_t* expected) {
    JsonValue data;
    ravo::GlobalConfig().get_vpn_gw(data);
    if (!is_success(expected)) {
        fuzz::expect(data.type == JsonValue::NULL_TYPE, "without a reply nothing is set");
        return;
    }
    if (data.type == JsonValue::NULL_TYPE) return;
    std::string text;
    data.toString(text);
    const json_ptr parsed = parse(text);
    const json_int_t type = json_integer_value(json_object_get(parsed.get(), "type"));
    fuzz::expect(json_object_size(parsed.get()) == 2 &&
                     json_is_integer(json_object_get(parsed.get(), "index")),
                 "type and index are set, and nothing else");
    fuzz::expect(type == 0 || type == 256 || type == 512 || type == 1024 || type == 4096,
                 "the gateway is a client or none");
}

void expect_settings(const json_t* expected) {
    const json_ptr reply(ravo::easy_zb_call("vpncaas", "read_json", nullptr), json_decref);
    const block_settings settings = to_block_settings(reply.get());
    const json_t* global = json_object_get(json_object_get(expected, "data"), "global");
    const bool is_on = is_success(expected) && json_is_true(json_object_get(global, "enable"));
    fuzz::expect(settings.available == is_success(expected), "settings are there with a reply");
    fuzz::expect(settings.enabled == is_on, "true is on, and nothing else is");
    fuzz::expect(is_on || (settings.limit == 0 && settings.block_seconds == 0),
                 "a limiter that is off has no numbers");
    const json_t* time = json_object_get(global, "time");
    fuzz::expect(!is_on || json_number_value(time) > 0 || settings.block_seconds == 0,
                 "no time is no block");
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::input in(data, size);
    const std::string interface = in.line();
    const std::string reply = in.rest();
    *standin() = {};
    standin()->answer = [&](zb_io* io) { return zb_io_write(io, reply.data(), reply.size()); };
    const json_ptr expected = parse(reply);
    expect_call(expected.get());
    expect_profile_name(interface, expected.get());
    expect_gateway(expected.get());
    expect_settings(expected.get());
    fuzz::expect(standin()->live_buffers == 0, "every buffer is freed");
    (void)remove(log_path);
    return 0;
}
