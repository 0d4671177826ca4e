// Closes what somebody else made, without waiting for him.
//
// A close may wait for the other end of what is closed: a socket that lingers does so for its
// unsent bytes (socket(7), SO_LINGER), for as long as its maker likes. Whoever closes last waits,
// and what still lies unread in a connection is closed with it. Taking the lingering off would not
// do: its maker can put it back in between. A process that exits does not wait, so the last copy of
// what cannot be trusted is left to one that does nothing else.
#ifndef ZBSERVICE_LET_GO_H
#define ZBSERVICE_LET_GO_H

#include <span>

#include "descriptor.h"

namespace zb {

// Closes descriptors that came from somebody else, in a process of their own if there are any. When
// none can be made, the closes are this process's own and may wait.
void let_go(std::span<descriptor> strange);

// Ends a connection for its peer as well, even while a child of a fork holds the socket, and closes
// it together with the descriptor that came through it, if there is one.
void hang_up(descriptor& connection, descriptor&& passed = descriptor());

}  // namespace zb

#endif  // ZBSERVICE_LET_GO_H
