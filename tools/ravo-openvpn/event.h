// What of a call of OpenVPN's hooks is kept.
#ifndef RAVO_OPENVPN_EVENT_H
#define RAVO_OPENVPN_EVENT_H

#include <ctime>
#include <string_view>

#include "environment.h"

// The variables that a record is made of, and what clients say about themselves, with 2048 bytes
// together.
environment to_event(std::string_view hook, const environment& given, time_t now);

#endif  // RAVO_OPENVPN_EVENT_H
