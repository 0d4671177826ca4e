// How ravoctl ends, and what it throws on the way there.
#pragma once

#include <stdexcept>

enum exit_status {
    done = 0,
    bad_usage = 1,         // an unknown option or field, or a value that does not fit
    local_error = 2,       // no memory, or a file or the output cannot be used
    user_blocked = 1,      // the answer to a check, so below "blocks" 1 has no other meaning
    bad_blocks_usage = 2,  // in place of bad_usage there
    unreachable = 3,       // nobody answers at the endpoint, or the two sides may not talk
    unanswered = 4,        // the daemon is there, but did not do what was asked
    not_kept = 5,          // accepted, but the check afterwards shows otherwise
};

// A mistake of the user's: told on standard error, and the program ends with bad_usage
// or bad_blocks_usage.
struct usage_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A change that was accepted, but that a check afterwards did not find: told on standard error, and
// the program ends with not_kept.
struct not_kept_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};
