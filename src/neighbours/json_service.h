// What the services that answer JSON share: the reading of JSON files, and the frame that serves a
// table of methods on the bus.
//
// Every answer is a JSON object with an integer "error"; 0 is success.
#ifndef NEIGHBOURS_JSON_SERVICE_H
#define NEIGHBOURS_JSON_SERVICE_H

#include <jansson.h>

#include <span>
#include <string>

#include "descriptor.h"
#include "json_ptr.h"

// --- Files ---------------------------------------------------------------------------------------
//
// Nothing but a regular file is ever opened for reading, since a pipe or a device could keep a
// service waiting. So a file is found first, looked at, and then read.

// Finds a file without opening what it holds, so that nothing waits and no device notices. None
// when there is no such file; errno says why.
descriptor find_file(const char* path);

// Where a file that was found lies, without any link in the path; empty when the kernel does not
// say.
std::string location(const descriptor& found);

// Appends the bytes of a file that was found. False when it is no regular file, may not be read, or
// has more than 4 MiB.
bool read_bytes(const descriptor& found, std::string& bytes);

// The JSON document, of any type, in a file that was found. Null when that is no regular file, may
// not be read, has more than 4 MiB, or is not one JSON document in UTF-8.
json_ptr read_document(const descriptor& found);

// --- Answers -------------------------------------------------------------------------------------

// {"error": error}
json_ptr answer_error(int error);

// {"error": 0, "data": data}; null when data is.
json_ptr answer_data(json_ptr data);

// --- Serving -------------------------------------------------------------------------------------

struct json_method {
    const char* name;
    // Answers a request, which is a text, empty without a body. Null: out of memory, no answer.
    json_ptr (*answer)(const char* request);
};

struct json_service {
    const char* name;  // the registered service
    std::span<const json_method> methods;
    void (*prepare)() = nullptr;  // runs once the address is held, before anybody is served
};

// The main function of a service: serves until SIGINT or SIGTERM. It takes no arguments. A method
// that is not in the table is not answered. Returns the exit status: 0 after a regular stop, 1 when
// the endpoint cannot be made or serving fails, 2 when there were arguments.
int run_json_service(const json_service& service, int argc, char** argv);

#endif  // NEIGHBOURS_JSON_SERVICE_H
