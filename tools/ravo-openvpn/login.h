// One login: asks the limiter, then the program that knows passwords, and counts a failure.
#ifndef RAVO_OPENVPN_LOGIN_H
#define RAVO_OPENVPN_LOGIN_H

#include <string>

#include "configuration.h"
#include "environment.h"

// What OpenVPN hands over: the environment, and with "via-file" the name of a file with user and
// password, which is gone when the hook has answered.
struct login {
    environment given;
    std::string credentials;  // the file's bytes
    bool has_file = false;
    std::string username;
};

login read_login(const environment& given, const char* file);

enum class verdict { accepted, refused, left_to_verifier };

// Judges a login, and waits for that: for the daemon, the verifier, and other logins of the same
// user. What the client is to be told goes to the file that "auth_failed_reason_file" names.
verdict judge(const login& attempt, const configuration& settings);

// Writes the verdict where a login that was put off is waited for.
void answer(const login& attempt, bool is_accepted);

#endif  // RAVO_OPENVPN_LOGIN_H
