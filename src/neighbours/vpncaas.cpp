// vpncaas: the settings service. Answers "read_json" on the bus: the JSON document of a settings
// file below /etc/config.
//
// Every answer is a JSON object with an integer "error": 0 with the document in "data", otherwise
// one of read_error. Runs in the foreground until SIGINT or SIGTERM; says READY=1 on NOTIFY_SOCKET.
//
// Whoever may call may name any path, so a path is trusted with nothing: a file is looked at where
// it really lies, after it has been found and before it is opened for reading.
#include <jansson.h>

#include <string>
#include <utility>

#include "json_service.h"
#include "json_texts.h"

namespace {

constexpr char settings_folder[] = "/etc/config";

enum read_error {
    bad_request = 1,     // no JSON object with a text "path"
    path_refused = 2,    // missing, or not below the folder once every link is resolved
    file_unreadable = 3  // no regular file, not readable, too large, or no JSON
};

// The folder is resolved like the file, because it may be a link itself.
bool is_below_settings_folder(const descriptor& file) {
    const descriptor folder = find_file(settings_folder);
    if (!file.is_open() || !folder.is_open()) return false;
    const std::string top = location(folder);
    return !top.empty() && location(file).starts_with(top + "/");
}

json_ptr read_json(const char* request_text) {
    const json_ptr request = parse_text(request_text);
    const char* path = json_string_value(json_object_get(request.get(), "path"));
    if (path == nullptr) return answer_error(bad_request);
    const descriptor found = find_file(path);
    if (!is_below_settings_folder(found)) return answer_error(path_refused);
    json_ptr document = read_document(found);
    if (!document) return answer_error(file_unreadable);
    return answer_data(std::move(document));
}

constexpr json_method methods[] = {{"read_json", read_json}};

}  // namespace

int main(int argc, char** argv) {
    return run_json_service({.name = "vpncaas", .methods = methods}, argc, argv);
}
