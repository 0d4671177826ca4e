// vpncaas: the settings service. Answers "read_json" on the bus: the JSON document of a settings
// file below /etc/config.
//
// Every answer is a JSON object with an integer "error": 0 with the document in "data", otherwise
// one of read_error. Runs in the foreground until SIGINT or SIGTERM; says READY=1 on NOTIFY_SOCKET.
#include <jansson.h>

#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "zbservice.h"

namespace {

constexpr std::string_view settings_folder = "/etc/config/";

enum read_error {
    read_ok = 0,
    bad_request = 1,     // no JSON object with a text "path"
    path_refused = 2,    // missing, or not below the folder once every link is resolved
    file_unreadable = 3  // cannot be read, or holds no JSON
};

struct json_deleter {
    void operator()(json_t* value) const { json_decref(value); }
};
using json_ptr = std::unique_ptr<json_t, json_deleter>;
struct text_deleter {
    void operator()(char* text) const { free(text); }
};
using text_ptr = std::unique_ptr<char, text_deleter>;

zb_service* service = nullptr;

// The file that the path leads to, when that lies below the settings folder; null otherwise.
text_ptr resolve(const char* path) {
    text_ptr resolved(realpath(path, nullptr));
    if (resolved &&
        std::string_view(resolved.get()).substr(0, settings_folder.size()) != settings_folder) {
        resolved.reset();
    }
    return resolved;
}

// The answer to one request.
json_ptr read_json(const char* request_text) {
    const json_ptr request(json_loads(request_text, 0, nullptr));
    const char* path = json_string_value(json_object_get(request.get(), "path"));
    if (path == nullptr) return json_ptr(json_pack("{s:i}", "error", bad_request));
    const text_ptr file = resolve(path);
    if (!file) return json_ptr(json_pack("{s:i}", "error", path_refused));
    json_t* document = json_load_file(file.get(), 0, nullptr);
    if (document == nullptr) return json_ptr(json_pack("{s:i}", "error", file_unreadable));
    return json_ptr(json_pack("{s:i, s:o}", "error", read_ok, "data", document));
}

// An unknown method is not answered.
void handle_request(const char* method, zb_io* io, int fd) {
    (void)fd;
    if (strcmp(method, "read_json") != 0) return;
    const json_ptr answer = read_json(static_cast<const char*>(zb_io_read(io, nullptr)));
    const text_ptr text(json_dumps(answer.get(), 0));
    if (!text) return;
    zb_io_realloc(io, 0);
    if (zb_io_write(io, text.get(), strlen(text.get())) == 0) zb_reply(io);
}

void stop(int /*sig*/) { zb_stop(service); }

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1) {
        (void)fprintf(stderr, "usage: %s\n", argv[0]);
        return 2;
    }
    zb_signal(SIGINT, stop);
    zb_signal(SIGTERM, stop);
    service = zb_create("vpncaas", 4, 1, handle_request);
    const int status = zb_start(service);
    zb_free(service);
    return status == 0 ? 0 : 1;
}
