// A second bus library with the C interface of zbservice.h and nothing behind it: it records what
// is called and answers as it is told.
//
// 1. As libzbservice.so.1, first in LD_LIBRARY_PATH, it takes the bus's place under a client
//    program, which drives it through standin(), or under the daemon, which it drives by a script.
// 2. Linked into a test program it takes the bus's place under the handlers.
//
// As a library it has no function beyond the ones that any bus library has, so zb_strerror is
// missing, and so are those that hand memory over. In a test program, where the real library is as
// well, it has zb_io_adopt. A buffer is a block of exactly its size, so that a sanitizer sees the
// first byte read past it. One thread.
#ifndef TESTS_STANDIN_H
#define TESTS_STANDIN_H

#include <functional>
#include <string>
#include <vector>

#include "zbservice.h"

// Environment of a process that serves: zb_start carries out the script's lines,
//     request METHOD [HEX [fd]]   calls the entry; HEX is the payload, "-" an empty one, "fd" sends
//                                 a descriptor along
//     signal NUMBER               calls the function registered for it
// and every event is appended to the record, a line each.
inline constexpr char standin_script[] = "STANDIN_SCRIPT";
inline constexpr char standin_record[] = "STANDIN_RECORD";

struct standin_call {
    std::string path;
    std::string method;
    std::string request;
    int timeout_s;
    int fd;
};

struct standin_write {
    const void* data;
    size_t length;
};

// What happened, and what is to happen.
struct standin_bus {
    std::vector<standin_call> calls;
    std::vector<standin_write> writes;
    std::vector<standin_write> adopted;
    std::vector<std::string> replies;
    std::vector<std::string> events;  // as in the record
    size_t live_buffers = 0;

    std::function<int(zb_io* io)> answer;  // zb_call's result; fills io, which is empty; none: 0
    bool no_buffers = false;               // zb_io_create gives NULL
    size_t failing_write = 0;              // this zb_io_write, counted from 1 here, fails; 0: none
    bool takes_blocks = true;              // zb_io_adopt takes what it is given; else it refuses
};

extern "C" standin_bus* standin();

#endif  // TESTS_STANDIN_H
