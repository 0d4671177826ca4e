// The options file as everybody who reads it sees it: where it is, its lock, and the numbers in it.
#ifndef VPN_OPTIONS_H
#define VPN_OPTIONS_H

#include <jansson.h>

#include <algorithm>
#include <limits>

#include "ostra_config.h"

namespace ravo {

inline constexpr char options_path[] = "/etc/config/vpn_options.conf";

// A lock of the options file, for as long as it lives.
class options_lock {
  public:
    // take is one of the lock library's two functions. Waits 5 seconds at most.
    explicit options_lock(int (*take)(const char*)) : handle(take(options_path)) {}
    ~options_lock() {
        if (is_held()) (void)Ini_Conf_Unlock_File(handle);
    }
    options_lock(const options_lock&) = delete;
    options_lock& operator=(const options_lock&) = delete;
    bool is_held() const { return handle >= 0; }
    int error() const { return handle; }  // why it is not held: an ostra_lock_error

  private:
    const int handle;
};

// A member as an integer: truncated toward zero, the nearest that fits; 0 when it is no number.
template <class Integer>
Integer number(const json_t* object, const char* key) {
    using range = std::numeric_limits<Integer>;
    const double value = json_number_value(json_object_get(object, key));
    return static_cast<Integer>(std::clamp<double>(value, range::min(), range::max()));
}

}  // namespace ravo

#endif  // VPN_OPTIONS_H
