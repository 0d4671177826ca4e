// Who may talk to whom, as the kernel tells it: both sides apply the same rule to each other.
#ifndef ZBSERVICE_PEER_H
#define ZBSERVICE_PEER_H

#include <sys/types.h>

namespace zb {

// No process has this group: the deployment names none.
inline constexpr gid_t no_group = static_cast<gid_t>(-1);

// The group that the deployment names in /etc/zbservice.conf, or no_group. A file that cannot be
// used is told to the log and names none.
gid_t deployment_group();

// Whether the process behind a connected socket is root's or of this process's own user.
bool is_root_or_self(int socket);

// Whether it belongs to the group, by its primary or any other group.
bool is_member(int socket, gid_t group);

}  // namespace zb

#endif  // ZBSERVICE_PEER_H
