// How ravoctl ends, and what it throws on the way there.
#pragma once

#include <stdexcept>
#include <string>

enum exit_status {
    done = 0,
    no = 1,           // the answer to a question, or the one thing that was asked for is not there
    bad_usage = 2,    // an unknown option or field, or a value that does not fit
    unreachable = 3,  // nobody answers at the endpoint, or a stranger holds it
    not_permitted = 4,  // the other side, or the system, does not let this user
    not_kept = 5,       // accepted, but the check afterwards shows otherwise
    timed_out = 6,      // the other side, or a lock, took too long
    failed_here = 7,    // no memory, or a file or the output cannot be used
    unanswered = 8,     // the other side is there, but did not do what was asked
};

// Told on standard error; the program ends with the status.
struct failure : std::runtime_error {
    failure(exit_status ends_with, const std::string& what)
        : std::runtime_error(what), status(ends_with) {}
    exit_status status;
};

// A mistake of the user's.
struct usage_error : failure {
    explicit usage_error(const std::string& what) : failure(bad_usage, what) {}
};

// A change that was accepted, but that a check afterwards did not find.
struct not_kept_error : failure {
    explicit not_kept_error(const std::string& what) : failure(not_kept, what) {}
};
