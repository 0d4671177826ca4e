// An endpoint that answers every request with its own payload. Its address is the first argument.
#include <csignal>

#include "zbservice.h"

namespace {

void answer(const char*, zb_io* io, int) { (void)zb_reply(io); }

zb_service* service = nullptr;

void stop(int) { (void)zb_stop(service); }

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return 1;
    (void)zb_signal(SIGTERM, stop);
    service = zb_create(argv[1], 4, 1, answer);
    const int result = zb_start(service);
    zb_free(service);
    return result == 0 ? 0 : 1;
}
