// Stands in front of the file calls that the log facility makes in this program: writes them down
// and makes them fail on request.
#ifndef TESTS_LOG_UNITS_FILE_CALLS_H
#define TESTS_LOG_UNITS_FILE_CALLS_H

#include <atomic>
#include <functional>
#include <string>
#include <vector>

namespace file_calls {

// While one lives, the calls of this thread are written down.
class recording {
  public:
    recording();
    ~recording();
    recording(const recording&) = delete;
    recording& operator=(const recording&) = delete;

    // One line a call, such as "open /p O_WRONLY|O_CREAT|O_CLOEXEC 0777", "F_SETLK F_UNLCK 0 0 0",
    // "close": the lock file's. "close log" is the log file's.
    std::vector<std::string> calls{};
};

// When set, asked before each open of the lock file; true makes it fail. Any thread asks.
extern std::function<bool()> open_fails;
// When set, called when the log file was opened next, before anything is written to it, and unset.
extern std::function<void()> after_log_open;
// When set, called with the descriptor before it is waited for.
extern std::function<void(int)> before_wait;
// Closes of numbers that were no open descriptors, of all threads.
extern std::atomic<int> bad_closes;

}  // namespace file_calls

#endif  // TESTS_LOG_UNITS_FILE_CALLS_H
