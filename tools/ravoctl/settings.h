// The login-attempt limiter's settings, asked of the service that ravod asks.
#pragma once

#include "block_settings.h"
#include "json_ptr.h"

// The service's reply, with the document in "data". Throws failure when it cannot be had.
json_ptr read_block_settings();

// When they cannot be had, tells why on standard error and returns settings that are not available.
block_settings ask_block_settings();
