// Waiting for a socket with a bound on the time without progress.
#ifndef ZBSERVICE_WAIT_H
#define ZBSERVICE_WAIT_H

#include <poll.h>

#include <chrono>

namespace zb {

class patient_wait {
  public:
    explicit patient_wait(std::chrono::seconds patience);

    // Progress: the time counts anew, from the next wait on.
    void restart() { counts_ = false; }
    bool is_over();

    // Waits for the events of poll(2). On a serving thread signals are delivered meanwhile. Returns
    // what poll reports, 0 when the time is over.
    short wait(int socket, short events);

    // Between two tries of what cannot be waited for. Signals are delivered alike.
    void pause();

    // Whether a receive from the socket may do the waiting: its own limit of time is the patience,
    // no signal has cut a receive short, and none has to be delivered here.
    bool is_left_to_receive() const { return left_to_receive_; }
    void leave_to_receive(bool may_be) { left_to_receive_ = may_be; }
    std::chrono::seconds patience() const { return patience_; }

  private:
    using clock = std::chrono::steady_clock;
    short poll_once(int socket, short events, int milliseconds);
    int milliseconds_left();
    void count();

    std::chrono::seconds patience_;
    clock::time_point deadline_;
    bool counts_ = false;  // there is a deadline
    bool left_to_receive_ = false;
};

}  // namespace zb

#endif  // ZBSERVICE_WAIT_H
