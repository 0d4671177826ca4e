// Tells whoever started the program that it serves now: the protocol of sd_notify(3).
#ifndef ZBSERVICE_NOTIFY_H
#define ZBSERVICE_NOTIFY_H

namespace zb {

// Sends "READY=1" to the socket that NOTIFY_SOCKET names, if it names one.
void notify_ready();

}  // namespace zb

#endif  // ZBSERVICE_NOTIFY_H
