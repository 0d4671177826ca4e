// The gateway setting of the VPN options, as the network service follows it.
//
// It is read on a thread of its own. Whoever holds the exclusive lock of the options may be waiting
// for an answer of this service, which therefore never waits for that lock itself.
#ifndef NEIGHBOURS_GATEWAY_SETTING_H
#define NEIGHBOURS_GATEWAY_SETTING_H

#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>

// Writes a line, unless nobody takes it: the service waits for no reader. Any thread may call.
void say(FILE* stream, const std::string& text);

// What came of reading the options.
enum class options_reading {
    done,        // or to be done as soon as the lock is free
    unreadable,  // no regular file, not readable, or too large
    unlockable   // their lock cannot be made
};

class gateway_setting {
  public:
    // Starts the thread, which ends with the process only: so long the object has to live. The
    // thread takes no signals.
    gateway_setting();
    gateway_setting(const gateway_setting&) = delete;
    gateway_setting& operator=(const gateway_setting&) = delete;

    // Has the setting read again, and says it in one line on standard output. When that fails, the
    // setting known before stays, and a line on standard error tells so. Like the store, it takes
    // bytes that are no JSON object for the template, which has no gateway.
    //
    // Blocks until it is read, a second at most. If somebody holds the lock for longer than 10
    // milliseconds, it returns then; the result is done, and the reading follows by itself.
    options_reading read_again();

  private:
    [[noreturn]] void serve();
    void read();
    uint64_t begin();
    void end(uint64_t current, options_reading outcome);
    options_reading read_file();

    std::mutex access;  // of the five below
    std::condition_variable changed;
    uint64_t wanted = 0;     // readings asked for
    uint64_t finished = 0;   // the last of them that is done
    bool is_locked = false;  // a reading has the lock, or knows that there will be none
    options_reading result = options_reading::done;

    std::string description = "no VPN gateway";  // in words; the thread's own
};

#endif  // NEIGHBOURS_GATEWAY_SETTING_H
