// Functions that our own bus library has beyond the interface that all have. They are declared
// weak, and used only together with the functions that they go with: a program may put others in
// the place of those alone.
#ifndef OPTIONAL_BUS_H
#define OPTIONAL_BUS_H

#include <dlfcn.h>

#include "zbservice.h"

#pragma weak zb_io_adopt
#pragma weak zb_call_into

// Whether an optional function is there, and from the library that the other one is from.
template <class Optional, class Other>
bool is_from_library_of(Optional* optional, Other* other) {
    Dl_info one = {};
    Dl_info two = {};
    return optional != nullptr && dladdr(reinterpret_cast<void*>(optional), &one) != 0 &&
           dladdr(reinterpret_cast<void*>(other), &two) != 0 && one.dli_fbase == two.dli_fbase;
}

#endif  // OPTIONAL_BUS_H
