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

// The user of the process behind a connected socket; no_user when the kernel does not tell.
inline constexpr uid_t no_user = static_cast<uid_t>(-1);
uid_t user_of(int socket);

// Whether that is root or this process's own user.
bool is_root_or_self(uid_t user);

// Whether the process behind a socket belongs to the group, by its primary or any other group.
bool is_member(int socket, gid_t group);

}  // namespace zb

#endif  // ZBSERVICE_PEER_H
