// One caller's connection, and the table of all of them.
#ifndef ZBSERVICE_CONNECTION_H
#define ZBSERVICE_CONNECTION_H

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>

#include "account.h"
#include "bounds.h"
#include "descriptor.h"
#include "reply_writer.h"
#include "request_reader.h"
#include "zbservice.h"

namespace zb {

enum class stage : std::uint8_t {
    closed,
    reading,  // its request is not complete
    waiting,  // its request is complete and waits for its turn
    running,  // the entry has it
    sending,  // its reply is not sent completely
    idle,     // it is kept, and its caller has not sent the next request
};

struct connection {
    zb_service* service = nullptr;
    holding held;  // what all of this costs the caller's user
    descriptor socket;
    descriptor passed;  // came with the request; the entry's once that is called
    stage at = stage::closed;
    std::uint32_t watched = 0;    // the events for which the loop's epoll has it; 0: it has not
    bool answered = false;        // the entry has replied
    bool kept = false;            // stays when its reply is sent
    std::uint32_t number = 0;     // counts the uses of the slot, so that an old event finds nobody
    monotonic::time_point since;  // when it came to its stage of reading, sending or idle
    monotonic::time_point progressed;
    monotonic::time_point
        sent;           // when the request was; until it is complete, the least that counts
    int overtaken = 0;  // how many requests that came later were put before it
    request_reader request;
    zb_io* io = nullptr;  // the entry's buffer, until it is released
    reply_writer reply;
    connection* next_waiting = nullptr;
};

// The slots of all connections. Nothing is allocated when one opens.
class connection_table {
  public:
    connection_table();

    bool is_full() const { return open_count_ == max_connections; }

    // Takes a free slot; there must be one.
    connection& open(zb_service* service, descriptor&& socket, account& user,
                     monotonic::time_point now);
    void close(connection& c);

    // An event's number for a connection, and the way back: null when it is closed meanwhile.
    std::uint64_t key(const connection& c) const;
    connection* find(std::uint64_t key);

    // The connection that has been idle for longest, of any user. Null: none.
    connection* longest_idle();

    // The user's connection that may be dropped to make room for another: the one that has been
    // idle longest, else the one that has waited longest for the end of its own request, else the
    // reader that has taken nothing for longest, if that is long enough or the user holds a full
    // share. Null: none.
    connection* most_expendable(const account& user, monotonic::time_point now);

    // The user's unfinished request that holds the most memory, and more than comes with one
    // receive; of several the oldest. Null: none.
    connection* largest_unfinished(const account& user);

    // The user's reader of a large reply that has taken nothing for longest, if that is long
    // enough. Null: none.
    connection* most_stalled_reader(const account& user, monotonic::time_point now);

    connection* begin() { return slots_.data(); }
    connection* end() { return slots_.data() + slots_.size(); }
    const connection* begin() const { return slots_.data(); }
    const connection* end() const { return slots_.data() + slots_.size(); }

  private:
    template <class Test, class Before>
    connection* first(const account& user, Test may_be, Before goes_before);

    std::array<connection, max_connections> slots_;
    std::array<std::uint16_t, max_connections> free_;  // the last one is taken next
    std::size_t open_count_ = 0;
};

}  // namespace zb

#endif  // ZBSERVICE_CONNECTION_H
