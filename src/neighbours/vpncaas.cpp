// vpncaas: the settings service. Answers "read_json" on the bus: the JSON document of a settings
// file below /etc/config.
//
// Every answer is a JSON object with an integer "error": 0 with the document in "data", otherwise
// one of read_error. Runs in the foreground until SIGINT or SIGTERM; says READY=1 on NOTIFY_SOCKET.
//
// Whoever may call may name any path, so a path is trusted with nothing: a file is looked at where
// it really lies, after it has been found and before it is opened for reading. Nothing but a
// regular file is ever opened for reading, since a pipe or a device could keep the service waiting.
#include <fcntl.h>
#include <jansson.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "zbservice.h"

namespace {

constexpr char settings_folder[] = "/etc/config";
constexpr size_t max_file_size = size_t{4} * 1024 * 1024;  // bytes of a settings file

enum read_error {
    read_ok = 0,
    bad_request = 1,     // no JSON object with a text "path"
    path_refused = 2,    // missing, or not below the folder once every link is resolved
    file_unreadable = 3  // no regular file, not readable, too large, or no JSON
};

struct json_deleter {
    void operator()(json_t* value) const { json_decref(value); }
};
using json_ptr = std::unique_ptr<json_t, json_deleter>;
struct text_deleter {
    void operator()(char* text) const { free(text); }
};
using text_ptr = std::unique_ptr<char, text_deleter>;

// Owns a descriptor, or none (-1).
class descriptor {
  public:
    explicit descriptor(int fd = -1) : fd_(fd) {}
    descriptor(descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    descriptor& operator=(descriptor&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~descriptor() {
        if (fd_ >= 0) close(fd_);
    }
    int get() const { return fd_; }
    bool is_open() const { return fd_ >= 0; }
    // The name under which the kernel lets this very file be looked at and opened again.
    std::string link() const { return "/proc/self/fd/" + std::to_string(fd_); }

  private:
    int fd_;
};

zb_service* service = nullptr;

// --- Files ---------------------------------------------------------------------------------------

// Where an open file lies, without any link in the path; empty when the kernel does not say.
std::string location(const descriptor& file) {
    char path[PATH_MAX];
    const ssize_t length = readlink(file.link().c_str(), path, sizeof path);
    return length > 0 ? std::string(path, static_cast<size_t>(length)) : std::string();
}

// Finds a file without opening what it holds, so that nothing waits and no device notices.
descriptor find(const char* path) { return descriptor(open(path, O_PATH | O_CLOEXEC)); }

// The folder is resolved like the file, because it may be a link itself.
bool is_below_settings_folder(const descriptor& file) {
    const descriptor folder = find(settings_folder);
    if (!file.is_open() || !folder.is_open()) return false;
    const std::string top = location(folder);
    return !top.empty() && location(file).starts_with(top + "/");
}

// Opens a file that was found for reading; none unless it is a regular one.
descriptor open_regular(const descriptor& found) {
    struct stat status = {};
    if (fstat(found.get(), &status) != 0 || !S_ISREG(status.st_mode)) return descriptor();
    return descriptor(open(found.link().c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
}

// The file's bytes. False when it cannot be read or is too large.
bool read_all(const descriptor& file, std::string& bytes) {
    char part[16 * 1024];
    ssize_t length = 0;
    while ((length = read(file.get(), part, sizeof part)) != 0) {
        if (length < 0 && errno == EINTR) continue;
        if (length < 0) return false;
        bytes.append(part, static_cast<size_t>(length));
        if (bytes.size() > max_file_size) return false;
    }
    return true;
}

// --- Requests ------------------------------------------------------------------------------------

json_ptr failure(read_error error) { return json_ptr(json_pack("{s:i}", "error", error)); }

// The answer to one request.
json_ptr read_json(const char* request_text) {
    const json_ptr request(json_loads(request_text, 0, nullptr));
    const char* path = json_string_value(json_object_get(request.get(), "path"));
    if (path == nullptr) return failure(bad_request);
    const descriptor found = find(path);
    if (!is_below_settings_folder(found)) return failure(path_refused);
    const descriptor file = open_regular(found);
    std::string bytes;
    if (!file.is_open() || !read_all(file, bytes)) return failure(file_unreadable);
    json_t* document = json_loadb(bytes.data(), bytes.size(), JSON_DECODE_ANY, nullptr);
    if (document == nullptr) return failure(file_unreadable);
    return json_ptr(json_pack("{s:i, s:o}", "error", read_ok, "data", document));
}

// An unknown method is not answered. A descriptor that came along is of no use here.
void handle_request(const char* method, zb_io* io, int fd) {
    if (fd >= 0) close(fd);
    if (strcmp(method, "read_json") != 0) return;
    const json_ptr answer = read_json(static_cast<const char*>(zb_io_read(io, nullptr)));
    const text_ptr text(json_dumps(answer.get(), 0));
    if (!text) return;
    (void)zb_io_realloc(io, 0);
    if (zb_io_write(io, text.get(), strlen(text.get())) == 0) (void)zb_reply(io);
}

void stop(int /*sig*/) { (void)zb_stop(service); }

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1) {
        (void)fprintf(stderr, "usage: %s\n", argv[0]);
        return 2;
    }
    (void)zb_signal(SIGINT, stop);
    (void)zb_signal(SIGTERM, stop);
    service = zb_create("vpncaas", 4, 1, handle_request);
    const int status = zb_start(service);
    zb_free(service);
    return status == 0 ? 0 : 1;
}
