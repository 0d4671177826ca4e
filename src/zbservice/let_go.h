// Closes what somebody else made, without waiting for him.
//
// A close may wait for the other end of what is closed: a socket that lingers does so for its
// unsent bytes (socket(7), SO_LINGER), for as long as its maker likes. Whoever closes last waits,
// and what still lies unread in a connection is closed with it. A process that exits does not wait,
// so the last copy of such a socket, and of a connection in which descriptors lie unread, is left
// to one that does nothing else. To take the lingering off would not do: its maker can put it back.
//
// A process costs what a hundred closes do, so descriptors that do not linger are closed here.
#ifndef ZBSERVICE_LET_GO_H
#define ZBSERVICE_LET_GO_H

#include <span>

#include "descriptor.h"

namespace zb {

// Closes descriptors that came from somebody else, in a process of their own if one of them
// lingers. When none can be made, the closes are this process's own and may wait; so may they when
// the maker lets a socket linger and closes his copy within the moment between the look and the
// close.
void let_go(std::span<descriptor> strange);

// Ends a connection for its peer as well, even while a child of a fork holds the socket, and closes
// it together with the descriptor that came through it, if there is one.
void hang_up(descriptor& connection, descriptor&& passed = descriptor());

}  // namespace zb

#endif  // ZBSERVICE_LET_GO_H
