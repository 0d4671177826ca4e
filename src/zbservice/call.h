// The calling side: one connection, one request, one reply.
#ifndef ZBSERVICE_CALL_H
#define ZBSERVICE_CALL_H

#include "zbservice.h"

namespace zb {

// zb_call() with its arguments checked. Leaves io as it was unless it returns ZB_OK.
int call(const char* path, const char* method, zb_io& io, int timeout_s, int fd);

}  // namespace zb

#endif  // ZBSERVICE_CALL_H
