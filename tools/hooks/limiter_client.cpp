// The login-attempt limiter, as programs that judge logins use it.
#include "limiter_client.h"

#include <jansson.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <optional>

#include "block_settings.h"
#include "json_ptr.h"
#include "ravo_api.h"
#include "text.h"
#include "zbservice.h"

// Weak, because another implementation of the bus may come first in the library path, and that need
// not have this function.
#pragma weak zb_strerror

namespace {

constexpr size_t name_size = RAVO_TEXT_SIZE - 1;

struct io_deleter {
    void operator()(zb_io* io) const { zb_io_free(io); }
};
using io_owner = std::unique_ptr<zb_io, io_deleter>;

// Without memory for a request the client library ends the process, which is a login program's.
bool has_memory_for_request() { return io_owner(zb_io_create()) != nullptr; }

// The limiter takes names that it could write to.
template <auto call>
int with_name(std::string& username) {
    return has_memory_for_request() ? call(username.data()) : ZB_ERROR_MEMORY;
}

// --- How long a block lasts ----------------------------------------------------------------------

// As the daemon asks for them.
block_settings ask_block_settings() {
    const io_owner io(zb_io_create());
    const std::string request = std::string(R"({"path": ")") + block_settings_path + R"("})";
    if (zb_io_write(io.get(), request.data(), request.size()) != 0) return {};
    if (zb_call("vpncaas", "read_json", io.get(), 2, -1) != 0) return {};
    const auto* text = static_cast<const char*>(zb_io_read(io.get(), nullptr));
    const json_ptr reply(json_loads(text, 0, nullptr));
    const json_t* error = json_object_get(reply.get(), "error");
    if (!json_is_integer(error) || json_integer_value(error) != 0) return {};
    return to_block_settings(reply.get());
}

// When the user's last failure was counted.
std::optional<uint64_t> last_failure(const std::string& username) {
    if (!has_memory_for_request()) return std::nullopt;
    db_query_cond of_user = {};
    of_user.count = -1;
    memcpy(of_user.field, "username", sizeof "username");
    memcpy(of_user.value, username.data(), username.size());
    db_privilege_user_block_query header = {};
    db_privilege_user_block_query* query = &header;
    (void)list_privilege_user_block(&of_user, &query);
    const std::unique_ptr<db_privilege_user_block_data, void (*)(void*)> rows(header.data, free);
    for (uint64_t n = 0; n < header.count; ++n) {
        if (header.data[n].username == username) return header.data[n].timestamp;
    }
    return std::nullopt;
}

std::string in_words(double seconds) {
    if (seconds < 120) return std::to_string(static_cast<int>(std::max(seconds, 1.0))) + " seconds";
    const double minutes = (seconds + 59) / 60;
    return minutes < 1e6 ? std::to_string(static_cast<int>(minutes)) + " minutes" : "a long time";
}

}  // namespace

const char* limiter_objection(std::string_view name) {
    if (name.empty()) return "it is empty";
    if (name.size() > name_size) return "it has more than 1024 bytes";
    if (name.find('%') != std::string_view::npos) return "it has a percent sign";
    if (std::any_of(name.begin(), name.end(), is_control)) return "it has a control byte";
    return nullptr;
}

int check_block(std::string username) { return with_name<check_privilege_user_block>(username); }
int count_failure(std::string username) { return with_name<add_privilege_user_block>(username); }
int forget_failures(std::string username) {
    return with_name<delete_privilege_user_block>(username);
}

std::string reason_of_block(const std::string& username) {
    const std::string blocked = "Too many failed logins. Try again ";
    const block_settings settings = ask_block_settings();
    const std::optional<uint64_t> since = last_failure(username);
    if (!settings.enabled || !since) return blocked + "later.";
    const double elapsed = difftime(time(nullptr), static_cast<time_t>(*since));
    return blocked + "in " + in_words(static_cast<double>(settings.block_seconds) - elapsed) + ".";
}

std::string shown(std::string_view name) {
    std::string text(name.substr(0, fitting_length(name, 200)));
    std::replace_if(text.begin(), text.end(), is_control, '?');
    return text;
}

std::string bus_result(int result) {
    const bool has_names = &zb_strerror != nullptr;
    return has_names ? zb_strerror(result) : "bus result " + std::to_string(result);
}
