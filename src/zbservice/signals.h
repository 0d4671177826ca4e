// Signals as events of the serving thread.
//
// The handler in the process only sets the signal's flag and wakes whoever waits, through one
// eventfd of the process. No signal is ever blocked, so child programs inherit nothing; the
// functions run later, as ordinary code, where deliver_signals() is called: on serving threads.
#ifndef ZBSERVICE_SIGNALS_H
#define ZBSERVICE_SIGNALS_H

#include "zbservice.h"

namespace zb {

// zb_signal().
int set_signal_function(int sig, zb_signal_fn fn);

// Runs the functions of all signals that came, on this thread. Does nothing inside such a function.
void deliver_signals() noexcept;

// The descriptor that is readable once a signal came. Opened at the first use; -1 when it cannot
// be.
int signal_wake_fd();
void drain_signal_wake();

// While one lives, this thread serves: what waits on it delivers signals.
class serving_scope {
  public:
    serving_scope();
    ~serving_scope();
    serving_scope(const serving_scope&) = delete;
    serving_scope& operator=(const serving_scope&) = delete;
};

// Whether something that waits on this thread is to deliver signals now.
bool delivers_signals_here();

}  // namespace zb

#endif  // ZBSERVICE_SIGNALS_H
