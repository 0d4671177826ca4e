// The login-attempt limiter's settings, asked of the service that ravod asks.
#include "settings.h"

#include <fmt/format.h>

#include <new>
#include <string>

#include "bus.h"
#include "json_ptr.h"

namespace {

constexpr char settings_service[] = "vpncaas";

std::string request_text() {
    const json_ptr request(json_pack("{s:s}", "path", block_settings_path));
    const json_text text(json_dumps(request.get(), 0));
    if (text == nullptr) throw std::bad_alloc();
    return text.get();
}

// A reply counts when its "error" is the integer 0.
bool is_success(const json_t* reply) {
    const json_t* error = json_object_get(reply, "error");
    return json_is_integer(error) && json_integer_value(error) == 0;
}

// Once, and not with every page of a list.
void tell(const std::string& why) {
    static std::string told;
    if (why != told) fmt::print(stderr, "ravoctl: {}\n", why);
    told = why;
}

}  // namespace

block_settings ask_block_settings() {
    const io_owner io = make_request(request_text());
    const int result = zb_call(settings_service, "read_json", io.get(), call_timeout_s, -1);
    if (result != 0) {
        tell(call_failure(settings_service, result).what());
        return {};
    }
    const auto* text = static_cast<const char*>(zb_io_read(io.get(), nullptr));
    const json_ptr reply(json_loads(text, 0, nullptr));
    if (is_success(reply.get())) return to_block_settings(reply.get());
    tell(fmt::format("{} could not read {}", settings_service, block_settings_path));
    return {};
}
