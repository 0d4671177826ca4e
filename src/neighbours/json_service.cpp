// What the services that answer JSON share: the reading of JSON files, and the frame that serves a
// table of methods on the bus.
#include "json_service.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "json_texts.h"
#include "zbservice.h"

namespace {

constexpr size_t max_file_size = size_t{4} * 1024 * 1024;  // bytes

const json_service* served = nullptr;
zb_service* endpoint = nullptr;

// --- Files ---------------------------------------------------------------------------------------

// The name under which the kernel lets this very file be looked at and opened again.
std::string link_to(const descriptor& file) {
    return "/proc/self/fd/" + std::to_string(file.get());
}

// Opens a file that was found for reading; none unless it is a regular one.
descriptor open_regular(const descriptor& found) {
    struct stat status = {};
    if (fstat(found.get(), &status) != 0 || !S_ISREG(status.st_mode)) return descriptor();
    return descriptor(open(link_to(found).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
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

// --- Serving -------------------------------------------------------------------------------------

void send_answer(zb_io* io, const json_t* answer) {
    const json_text text = dump_json(answer);
    if (!text) return;
    (void)zb_io_realloc(io, 0);
    if (zb_io_write(io, text.get(), strlen(text.get())) == 0) (void)zb_reply(io);
}

// An unknown method is not answered. A descriptor that came along is of no use here.
void handle_request(const char* name, zb_io* io, int fd) {
    if (fd >= 0) close(fd);
    for (const json_method& method : served->methods) {
        if (strcmp(method.name, name) != 0) continue;
        const json_ptr answer = method.answer(static_cast<const char*>(zb_io_read(io, nullptr)));
        return send_answer(io, answer.get());
    }
}

void stop(int /*sig*/) { (void)zb_stop(endpoint); }

// A standard stream that is closed would become any other descriptor, into which lines then go.
void fill_standard_streams() {
    int fd = 0;
    do {
        fd = open("/dev/null", O_RDWR);
    } while (0 <= fd && fd <= STDERR_FILENO);
    if (fd >= 0) close(fd);
}

}  // namespace

descriptor find_file(const char* path) { return descriptor(open(path, O_PATH | O_CLOEXEC)); }

std::string location(const descriptor& found) {
    char path[PATH_MAX];
    const ssize_t length = readlink(link_to(found).c_str(), path, sizeof path);
    return length > 0 ? std::string(path, static_cast<size_t>(length)) : std::string();
}

bool read_bytes(const descriptor& found, std::string& bytes) {
    const descriptor file = open_regular(found);
    return file.is_open() && read_all(file, bytes);
}

json_ptr read_document(const descriptor& found) {
    std::string bytes;
    if (!read_bytes(found, bytes)) return nullptr;
    return parse_json(bytes.size(), [&] {
        return json_loadb(bytes.data(), bytes.size(), JSON_DECODE_ANY, nullptr);
    });
}

json_ptr answer_error(int error) { return json_ptr(json_pack("{s:i}", "error", error)); }

json_ptr answer_data(json_ptr data) {
    return json_ptr(json_pack("{s:i, s:o}", "error", 0, "data", data.release()));
}

int run_json_service(const json_service& service, int argc, char** argv) {
    if (argc > 1) {
        (void)fprintf(stderr, "usage: %s\n", argv[0]);
        return 2;
    }
    fill_standard_streams();
    served = &service;
    (void)zb_signal(SIGINT, stop);
    (void)zb_signal(SIGTERM, stop);
    endpoint = zb_create(service.name, 4, 1, handle_request);
    if (endpoint != nullptr && service.prepare != nullptr) service.prepare();
    const int status = zb_start(endpoint);
    zb_free(endpoint);
    return status == 0 ? 0 : 1;
}
