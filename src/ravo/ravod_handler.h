// The method registry and the entry that the bus calls for each request.
#ifndef RAVOD_HANDLER_H
#define RAVOD_HANDLER_H

#include <functional>
#include <map>
#include <string>

#include "zbservice.h"

// A method's handler. Returns 0 when it has replied, and the buffer is the dispatcher's to release;
// non-zero when it has released the buffer and replied nothing.
using ravod_method = int (*)(zb_io* io);

// Handlers by method name, byte for byte. Complete before main starts and only read from then on,
// so lookups need no lock.
extern std::map<std::string, ravod_method, std::less<>> ravod_method_list;

// Runs the handler of the named method. An unknown method is not answered. A descriptor that comes
// with a request is closed at once. Never throws.
void ravod_method_handler(const char* method, zb_io* io, int fd);

#endif  // RAVOD_HANDLER_H
