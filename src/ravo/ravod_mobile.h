// Fresh device identifiers from the kernel's random UUIDs.
#ifndef RAVOD_MOBILE_H
#define RAVOD_MOBILE_H

#include "zbservice.h"

// Fills uuid, at least 36 zero bytes, with a new identifier: 32 hexadecimal digits in lower case
// and "%R?". Returns -1, with uuid untouched, when the kernel's source cannot be opened.
int ravo_uuid_gen(char* uuid);

// The handler of the method of that name: replies with a fresh identifier, or with 36 zero bytes
// when there is none. The request is not read. Follows the rules of ravod_db.h.
int ravo_mobile_gen_ravo_uuid(zb_io* io);

#endif  // RAVOD_MOBILE_H
