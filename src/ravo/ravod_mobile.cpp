// Fresh device identifiers from the kernel's random UUIDs.
#include "ravod_mobile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>

#include "ravo_log.h"
#include "ravo_records.h"

namespace {

constexpr char kernel_source[] = "/proc/sys/kernel/random/uuid";  // random(4)
constexpr size_t kernel_uuid_size = 36;                           // 32 digits and 4 hyphens
constexpr size_t digits = 32;
constexpr char suffix[] = {'%', 'R', '?'};

// Reads until the buffer is full, or the kernel has no more to give.
void read_whole(int fd, char* buffer, size_t size) {
    size_t length = 0;
    ssize_t step = 0;
    while (length < size && (step = read(fd, buffer + length, size - length)) > 0) {
        length += static_cast<size_t>(step);
    }
}

}  // namespace

int ravo_uuid_gen(char* uuid) {
    const int fd = open(kernel_source, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        call_site at = HERE;
        at.function = "uuid_gen";  // the short name is part of the line
        log_line(at, "ERROR", "open uuid failed\n");
        return -1;
    }
    char text[kernel_uuid_size + 1] = {};
    read_whole(fd, text, kernel_uuid_size);
    close(fd);

    size_t taken = 0;
    for (const char* c = text; *c != '\0' && taken < digits; ++c) {
        if (*c != '-') uuid[taken++] = *c;
    }
    uuid[taken] = '\0';
    // Over the terminator that follows the digits: the suffix is part of the identifier.
    for (size_t n = 0; n < sizeof suffix; ++n) uuid[digits + n] = suffix[n];
    return 0;
}

int ravo_mobile_gen_ravo_uuid(zb_io* io) {
    ravo_mobile_gen_uuid_data_get uuid = {};
    (void)ravo_uuid_gen(uuid.ravo_uuid);
    zb_io_realloc(io, 0);
    if (zb_io_write(io, &uuid, sizeof uuid) == 0) zb_reply(io);
    return 0;
}
