// Calls of other services' JSON methods over the bus.
#include "global_options.h"

#include <cstring>
#include <memory>
#include <utility>

#include "ravo_log.h"
#include "zbservice.h"

namespace ravo {

namespace {

constexpr int call_timeout_seconds = 5;

struct zb_io_deleter {
    void operator()(zb_io* io) const { zb_io_free(io); }
};
struct json_deleter {
    void operator()(json_t* value) const { json_decref(value); }
};
using json_ptr = std::unique_ptr<json_t, json_deleter>;

}  // namespace

json_t* easy_zb_call(const char* domain, const char* method, const char* senddata) {
    if (domain == nullptr || method == nullptr) return nullptr;
    const std::unique_ptr<zb_io, zb_io_deleter> io(zb_io_create());
    if (!io) {
        log_line(HERE, "ERROR", "%s: zb_io_create failed\n", __func__);
        return nullptr;
    }
    const char* sent = senddata != nullptr ? senddata : "";
    if ((senddata != nullptr && zb_io_write(io.get(), senddata, strlen(senddata)) != 0) ||
        zb_call(domain, method, io.get(), call_timeout_seconds, -1) != 0) {
        log_line(HERE, "ERROR", "%s: zb_call %s.%s %s failed\n", __func__, domain, method, sent);
        return nullptr;
    }
    const auto* text = static_cast<const char*>(zb_io_read(io.get(), nullptr));
    json_ptr root(json_loads(text, 0, nullptr));
    if (!json_is_object(root.get())) {
        log_line(HERE, "ERROR", "%s: root isn't an object.\n", __func__);
        return nullptr;
    }
    const json_t* error = json_object_get(root.get(), "error");
    if (!json_is_integer(error)) {
        log_line(HERE, "ERROR", "%s: val isn't an integer.\n", __func__);
        return nullptr;
    }
    if (json_integer_value(error) != 0) {
        log_line(HERE, "ERROR", "%s: %s.%s %s failed\n", __func__, domain, method, sent);
        return nullptr;
    }
    return root.release();
}

std::string get_profile_name(std::string sname) {  // NOLINT(performance-unnecessary-value-param)
    const json_ptr request(json_object());
    (void)json_object_set_new(request.get(), "key", json_string(sname.c_str()));
    // Deliberate: the text is not released.
    const char* text = json_dumps(request.get(), 0);
    const json_ptr reply(easy_zb_call("NetworkService", "external_dev.list", text));
    if (!reply) return {};
    const json_t* device = json_object_get(json_object_get(reply.get(), "data"), sname.c_str());
    if (!json_is_object(device)) {
        log_line(HERE, "ERROR", "%s: %s isn't an object.\n", __func__, sname.c_str());
        return {};
    }
    const json_t* profile = json_object_get(device, "profile");
    if (!json_is_string(profile)) {
        log_line(HERE, "ERROR", "%s: profile isn't string.\n", __func__);
        return {};
    }
    return json_string_value(profile);
}

}  // namespace ravo
