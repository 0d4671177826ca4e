// What the records of a session are made of.
#ifndef HOOKS_SESSION_H
#define HOOKS_SESSION_H

#include <optional>
#include <string>
#include <string_view>

#include "environment.h"
#include "ravo_records.h"

// What became of a session, the value of a record's action.
enum class session_action { connected = 1, disconnected = 2, lost = 3 };

// The user of a session: the name that the client gave, or its certificate's.
std::string_view user_of(const environment& event);

// What a connect and its disconnect have in common, and no two sessions: server, start (of which
// only OpenVPN tells), source address and port, and name.
std::string session_key(const environment& event);

// Whether two events are of one session, whose client may have moved to another source address
// between them: then they have the VPN's address in common.
bool is_same_session(const environment& one, const environment& other);

// The record of a connect or a disconnect. Texts that are too long end before a character's middle.
db_conn_server_log to_connection(const environment& event, session_action action);

// The record of a session whose end nobody was told: it ended at the latest when that was noticed,
// with byte counts that nobody knows.
db_conn_server_log to_lost_connection(const environment& connect, time_t noticed);

// The device of a connect; none when the client does not tell a hardware address.
std::optional<db_device_info_data> to_device(const environment& connect);

#endif  // HOOKS_SESSION_H
