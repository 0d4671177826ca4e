// Preloaded into a program: the limit of descriptors that it is told, from TOLD_OPEN_MAX, where the
// machine does not allow it to have one.
#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>

extern "C" [[gnu::visibility("default")]] long sysconf(int name) noexcept {
    const char* told = getenv("TOLD_OPEN_MAX");
    if (name == _SC_OPEN_MAX && told != nullptr) return strtol(told, nullptr, 10);
    using function = long (*)(int);
    return reinterpret_cast<function>(dlsym(RTLD_NEXT, "sysconf"))(name);
}
