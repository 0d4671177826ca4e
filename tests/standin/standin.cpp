// A second bus library with the C interface of zbservice.h and nothing behind it.
#include "standin/standin.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

struct zb_io {
    char* data;
    size_t length;
};

struct zb_service {
    zb_entry entry;
    bool stopped;
};

namespace {

standin_bus bus;
std::set<zb_io*> buffers;
std::map<int, zb_signal_fn> signal_functions;

void event(const std::string& line) {
    bus.events.push_back(line);
    if (const char* path = getenv(standin_record))
        std::ofstream(path, std::ios::app) << line << "\n";
}

// Makes the payload's block anew, of exactly its size and the zero byte.
bool resize(zb_io* io, size_t length) {
    auto* block = static_cast<char*>(calloc(1, length + 1));
    if (block == nullptr) return false;
    memcpy(block, io->data, io->length < length ? io->length : length);
    free(io->data);
    *io = {block, length};
    return true;
}

bool append(zb_io* io, const void* data, size_t length) {
    const size_t end = io->length;
    if (!resize(io, end + length)) return false;
    if (length != 0) memcpy(io->data + end, data, length);
    return true;
}

void release(zb_io* io) {
    buffers.erase(io);
    bus.live_buffers = buffers.size();
    free(io->data);
    delete io;
}

std::string to_hex(const zb_io& io) {
    std::string text;
    for (size_t n = 0; n < io.length; ++n) {
        char digits[3];
        (void)snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(io.data[n]));
        text += digits;
    }
    return text;
}

void write_hex(zb_io* io, const std::string& text) {
    if (text.empty() || text == "-") return;
    (void)resize(io, text.size() / 2);
    for (size_t n = 0; n < io->length; ++n) {
        io->data[n] = static_cast<char>(std::stoi(text.substr(2 * n, 2), nullptr, 16));
    }
}

void request(const zb_service& service, std::istringstream& line) {
    std::string method;
    std::string payload;
    std::string with_fd;
    line >> method >> payload >> with_fd;
    zb_io* io = zb_io_create();
    write_hex(io, payload);
    const int fd = with_fd == "fd" ? open("/dev/null", O_RDONLY | O_CLOEXEC) : -1;
    event("entry " + method);
    service.entry(method.c_str(), io, fd);
    event("returned");
    if (fd >= 0) event(fcntl(fd, F_GETFD) < 0 && errno == EBADF ? "fd closed" : "fd open");
    if (buffers.count(io) != 0) {
        event("buffer left");
        release(io);
    }
}

void carry_out(const zb_service& service, const std::string& text) {
    std::istringstream line(text);
    std::string verb;
    line >> verb;
    if (verb == "request") request(service, line);
    int number = 0;
    if (verb == "signal" && line >> number) {
        event("signal " + std::to_string(number));
        signal_functions.at(number)(number);
    }
}

}  // namespace

extern "C" __attribute__((visibility("default"))) standin_bus* standin() { return &bus; }

zb_io* zb_io_create(void) {
    if (bus.no_buffers) return nullptr;
    auto* io = new zb_io{static_cast<char*>(calloc(1, 1)), 0};
    buffers.insert(io);
    bus.live_buffers = buffers.size();
    return io;
}

int zb_io_write(zb_io* io, const void* data, size_t length) {
    bus.writes.push_back({data, length});
    if (bus.writes.size() == bus.failing_write) return -1;
    return append(io, data, length) ? 0 : -1;
}

#ifdef STANDIN_TAKES_BLOCKS
int zb_io_adopt(zb_io* io, void* block, size_t length, void (*release)(void*)) {
    if (!bus.takes_blocks || !append(io, block, length)) return -1;
    bus.adopted.push_back({block, length});
    release(block);
    return 0;
}
#endif

void* zb_io_read(zb_io* io, size_t* length) {
    if (length != nullptr) *length = io->length;
    return io->data;
}

int zb_io_realloc(zb_io* io, size_t length) {
    event("zb_io_realloc " + std::to_string(length));
    return resize(io, length) ? 0 : -1;
}

void zb_io_free(zb_io* io) {
    event("zb_io_free");
    if (buffers.count(io) != 0) {
        release(io);
    } else {
        event("no such buffer");
    }
}

int zb_reply(zb_io* io) {
    event("zb_reply " + to_hex(*io));
    bus.replies.emplace_back(io->data, io->length);
    return 0;
}

int zb_call(const char* path, const char* method, zb_io* io, int timeout_s, int fd) {
    bus.calls.push_back({path, method, std::string(io->data, io->length), timeout_s, fd});
    (void)resize(io, 0);
    return bus.answer ? bus.answer(io) : 0;
}

zb_service* zb_create(const char* path, int setting1, int setting2, zb_entry entry) {
    event("zb_create " + std::string(path) + " " + std::to_string(setting1) + " " +
          std::to_string(setting2));
    return new zb_service{entry, false};
}

int zb_start(zb_service* service) {
    event("zb_start");
    const char* path = getenv(standin_script);
    std::ifstream script(path != nullptr ? path : "/dev/null");
    for (std::string line; !service->stopped && std::getline(script, line);) {
        carry_out(*service, line);
    }
    return 0;
}

int zb_stop(zb_service* service) {
    event("zb_stop");
    service->stopped = true;
    return 0;
}

void zb_free(zb_service* service) {
    event("zb_free");
    delete service;
}

int zb_signal(int sig, zb_signal_fn fn) {
    event("zb_signal " + std::to_string(sig));
    signal_functions[sig] = fn;
    return 0;
}
