// The login-attempt limiter, as programs that judge logins use it.
#ifndef HOOKS_LIMITER_CLIENT_H
#define HOOKS_LIMITER_CLIENT_H

#include <string>
#include <string_view>

// Why the limiter must not be asked about a name; null when it may be.
const char* limiter_objection(std::string_view name);

// --- Calls, each with a name that the limiter has no objection to --------------------------------

// 1: the user is blocked; 0: not; negative: the bus's result.
int check_block(std::string username);

// 0, or the bus's negative result.
int count_failure(std::string username);
int forget_failures(std::string username);

// What a blocked user is told: how long the block lasts, as far as the daemon and the settings
// service tell.
std::string reason_of_block(const std::string& username);

// --- Texts ---------------------------------------------------------------------------------------

// A name for a line of a log: its first 200 bytes, control bytes as "?".
std::string shown(std::string_view name);

// A result of the bus in words.
std::string bus_result(int result);

#endif  // HOOKS_LIMITER_CLIENT_H
