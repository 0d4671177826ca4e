// The login-attempt limiter's settings, asked of the service that ravod asks.
#pragma once

#include "block_settings.h"

// When they cannot be had, tells why on standard error and returns settings that are not available.
block_settings ask_block_settings();
