// Receives from a socket whose peer may attach descriptors to its bytes.
#ifndef ZBSERVICE_RECEIVE_H
#define ZBSERVICE_RECEIVE_H

#include <cstddef>

#include "descriptor.h"

namespace zb {

// To be called before anything is received: urgent bytes come in their turn then. By itself a
// receive throws them away, and closes the descriptors that come with them where it stands.
void take_urgent_bytes_in_turn(int socket);

// Receives without blocking. The first descriptor that ever comes goes to `passed`, all others are
// let go. Returns the bytes received, 0 at the end of file, -1 with errno.
ssize_t receive_with_descriptor(int socket, char* target, std::size_t room, descriptor& passed);

}  // namespace zb

#endif  // ZBSERVICE_RECEIVE_H
