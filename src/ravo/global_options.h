// Calls of other services' JSON methods over the bus.
//
// Every message of this unit is logged at "ERROR", informative ones included. A call blocks until
// the service has answered, at most 5 seconds without progress. Any thread may call.
#ifndef GLOBAL_OPTIONS_H
#define GLOBAL_OPTIONS_H

#include <jansson.h>

#include <string>

namespace ravo {

// Calls a service's method and judges the reply's "error".
//
// domain    a registered service name, such as "vpncaas", or an abstract socket path.
// senddata  the request's JSON text; null for a call without body.
//
// Returns the reply, a JSON object whose "error" is 0, which the caller releases with
// json_decref(); null on any failure, which is logged (but for a null domain or method).
json_t* easy_zb_call(const char* domain, const char* method, const char* senddata);

// The profile name that the network service records for a network interface; empty when there is
// none, which is logged.
std::string get_profile_name(std::string sname);

}  // namespace ravo

#endif  // GLOBAL_OPTIONS_H
