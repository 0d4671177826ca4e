/* zbservice.h comes first and alone: a C program needs nothing else to use the library. */
#include "zbservice.h"

int c11_round_trip_of_a_buffer(void);

int c11_round_trip_of_a_buffer(void) {
    size_t length = 0;
    zb_io* io = zb_io_create();
    int result = zb_io_write(io, "abc", 3);
    if (result == 0 && (!zb_io_read(io, &length) || length != 3)) result = -1;
    if (result == 0 && zb_call("@/nobody", "method", io, 5, -1) != ZB_ERROR_UNREACHABLE)
        result = -1;
    zb_io_free(io);
    return result;
}
