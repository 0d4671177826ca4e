// Functions that our own bus library has beyond the interface that all have. They are declared
// weak, and used only together with the functions that they go with: a program may put others in
// the place of those alone.
#ifndef OPTIONAL_BUS_H
#define OPTIONAL_BUS_H

#include <dlfcn.h>

#include "zbservice.h"

extern "C" {
__attribute__((weak)) int zb_io_adopt(zb_io* io, void* block, size_t length);
__attribute__((weak)) int zb_call_into(const char* path, const char* method, zb_io* io,
                                       int timeout_s, int fd, size_t head_length, zb_place_fn place,
                                       void* arg);
}

// Whether an optional function is there, and from the library that the other one is from.
template <class Optional, class Other>
bool is_from_library_of(Optional* optional, Other* other) {
    Dl_info one = {};
    Dl_info two = {};
    return optional != nullptr && dladdr(reinterpret_cast<void*>(optional), &one) != 0 &&
           dladdr(reinterpret_cast<void*>(other), &two) != 0 && one.dli_fbase == two.dli_fbase;
}

#endif  // OPTIONAL_BUS_H
