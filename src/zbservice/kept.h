// Connections that callers keep from one call to the next.
//
// A connection belongs to one thread and one address. Nothing but that thread's next call of that
// address uses it, and that only as long as it is certain to be what it was: the same socket under
// the same number, this process and not a child of it, the same user, and an endpoint at its other
// end that has neither hung up nor said anything since its last reply.
#ifndef ZBSERVICE_KEPT_H
#define ZBSERVICE_KEPT_H

#include <chrono>

#include "address.h"
#include "descriptor.h"
#include "frame.h"

namespace zb {

// Whether the process has descriptors to spare for a connection that only waits: it may open many,
// and this one, the lowest that was free, is far from the last. Both ends ask before they keep one.
bool has_descriptors_to_spare(int socket);

// What a thread remembers of its latest calls, to keep no connection for a single one.
struct acquaintance {
    bool is_recent = false;  // it has called this address a short while ago
    bool is_old = false;     // an endpoint that understands neither dates nor keeping answered then
};

// Also notes that the address is called now.
acquaintance meet(const socket_address& address, monotonic::time_point now);
void note_old_endpoint(const socket_address& address);

struct kept_connection;

// This thread's connection to the address, fit for a request; null: there is none. Those of the
// thread that have waited too long are closed. Until it is given back or dropped nobody gets it.
kept_connection* take_kept(const socket_address& address, monotonic::time_point now);
int socket_of(const kept_connection& kept);

// The socket's receives fail after so long.
bool limit_receives(kept_connection& kept, std::chrono::seconds patience);

void give_back(kept_connection& kept, monotonic::time_point now);
void drop(kept_connection& kept);

// Keeps a connection over which a reply came, in the place of the one that was used least lately if
// the thread has enough. Closes it when it cannot be kept.
void keep(descriptor&& socket, const socket_address& address, monotonic::time_point now);

}  // namespace zb

#endif  // ZBSERVICE_KEPT_H
