// pam_ravod: the login-attempt limiter for programs that log users in through PAM.
//
//   auth     required       pam_ravod.so preauth      is the user blocked?
//   auth     [default=die]  pam_ravod.so authfail     the password was wrong
//   auth     sufficient     pam_ravod.so authsucc     it was right
//   account  required       pam_ravod.so              the login is one: earlier failures are
//   forgotten
//
// It runs inside of other programs: no state of its own, nothing printed, no exception let out, and
// no wait but the client library's for its answers. It stays loaded once it is, because the bus has
// something to do at the end of each thread that has called.
#include <security/pam_ext.h>
#include <security/pam_modules.h>
#include <security/pam_modutil.h>
#include <syslog.h>

#include <exception>
#include <string>
#include <string_view>
#include <utility>

#include "limiter_client.h"

namespace {

enum class step { unknown, preauth, authfail, authsucc };

struct options {
    step what = step::unknown;
    bool is_open = true;
    bool is_silent = false;
    bool is_debug = false;
    bool known_users_only = false;
    const char* exempt_group = nullptr;
};

struct login {
    pam_handle_t* pam;
    options settings;
    std::string user;

    std::string shown_user() const { return shown(user); }
};

// --- Options -------------------------------------------------------------------------------------

constexpr std::pair<std::string_view, step> steps[] = {
    {"preauth", step::preauth}, {"authfail", step::authfail}, {"authsucc", step::authsucc}};

struct switch_word {
    std::string_view word;
    bool options::*what;
    bool value;
};
constexpr switch_word switches[] = {{"fail=open", &options::is_open, true},
                                    {"fail=closed", &options::is_open, false},
                                    {"silent", &options::is_silent, true},
                                    {"debug", &options::is_debug, true},
                                    {"known_users_only", &options::known_users_only, true}};

bool set(options& settings, const char* text) {
    const std::string_view word = text;
    constexpr std::string_view group = "exempt_group=";
    if (word.starts_with(group) && word != group) {
        settings.exempt_group = text + group.size();
        return true;
    }
    for (const auto& [name, what] : steps) {
        if (name != word) continue;
        settings.what = what;
        return true;
    }
    for (const auto& [name, what, value] : switches) {
        if (name != word) continue;
        settings.*what = value;
        return true;
    }
    return false;
}

options parse(pam_handle_t* pam, int flags, int argc, const char** argv) {
    options settings;
    settings.is_silent = (static_cast<unsigned>(flags) & PAM_SILENT) != 0;
    for (int n = 0; n < argc; ++n) {
        if (!set(settings, argv[n])) pam_syslog(pam, LOG_ERR, "option not understood: %s", argv[n]);
    }
    return settings;
}

// --- What the user and the system log are told ---------------------------------------------------

void tell(const login& attempt, const std::string& text) {
    if (!attempt.settings.is_silent) (void)pam_info(attempt.pam, "%s", text.c_str());
}

void debug(const login& attempt, const char* what) {
    if (!attempt.settings.is_debug) return;
    pam_syslog(attempt.pam, LOG_DEBUG, "%s: %s", attempt.shown_user().c_str(), what);
}

int refuse_blocked(const login& attempt) {
    pam_syslog(attempt.pam, LOG_NOTICE, "login of %s refused: the user is blocked",
               attempt.shown_user().c_str());
    if (!attempt.settings.is_silent) tell(attempt, reason_of_block(attempt.user));
    return PAM_MAXTRIES;
}

// What becomes of a login that nobody can hold against the limiter; otherwise is what open means.
int without_limiter(const login& attempt, int result, int otherwise) {
    const bool is_open = attempt.settings.is_open;
    pam_syslog(attempt.pam, LOG_ERR, "THE LIMITER IS AWAY (%s): the login of %s is %s",
               bus_result(result).c_str(), attempt.shown_user().c_str(),
               is_open ? "judged without it" : "refused");
    if (is_open) return otherwise;
    tell(attempt, "Logins cannot be judged now. Try again later.");
    return PAM_AUTHINFO_UNAVAIL;
}

void tell_if_failed(const login& attempt, int result) {
    if (result == 0) return;
    pam_syslog(attempt.pam, LOG_ERR, "the limiter does not learn how the login of %s ended: %s",
               attempt.shown_user().c_str(), bus_result(result).c_str());
}

// --- Whom the limiter does not hold back ---------------------------------------------------------

bool is_exempt(const login& attempt) {
    const options& settings = attempt.settings;
    const char* user = attempt.user.c_str();
    if (settings.exempt_group != nullptr &&
        pam_modutil_user_in_group_nam_nam(attempt.pam, user, settings.exempt_group) == 1) {
        debug(attempt, "in the group that is exempt");
        return true;
    }
    if (settings.known_users_only && pam_modutil_getpwnam(attempt.pam, user) == nullptr) {
        debug(attempt, "no user that this machine knows");
        return true;
    }
    return false;
}

bool has_objection(const login& attempt) {
    const char* objection = limiter_objection(attempt.user);
    if (objection == nullptr) return false;
    pam_syslog(attempt.pam, LOG_NOTICE, "the limiter is not asked about the name \"%s\": %s",
               attempt.shown_user().c_str(), objection);
    return true;
}

// --- The steps -----------------------------------------------------------------------------------

// Never a success of its own: where no module judges the password, nobody comes in.
int before_password(const login& attempt) {
    if (is_exempt(attempt)) return PAM_IGNORE;
    if (has_objection(attempt)) return PAM_AUTH_ERR;
    const int blocked = check_block(attempt.user);
    if (blocked == 1) return refuse_blocked(attempt);
    if (blocked < 0) return without_limiter(attempt, blocked, PAM_IGNORE);
    debug(attempt, "not blocked");
    return PAM_IGNORE;
}

// A failure always. One of a blocked user does not count: nobody has looked at the password.
int after_failure(const login& attempt) {
    if (is_exempt(attempt) || has_objection(attempt)) return PAM_AUTH_ERR;
    const int blocked = check_block(attempt.user);
    if (blocked == 1) return PAM_MAXTRIES;
    const int result = blocked < 0 ? blocked : count_failure(attempt.user);
    tell_if_failed(attempt, result);
    if (result == 0) debug(attempt, "failure counted");
    return PAM_AUTH_ERR;
}

void forget(const login& attempt) {
    tell_if_failed(attempt, forget_failures(attempt.user));
    debug(attempt, "failures forgotten");
}

// Asks once more: guesses at the same time may all have passed the first question.
int after_success(const login& attempt) {
    if (is_exempt(attempt)) return PAM_SUCCESS;
    if (has_objection(attempt)) return PAM_AUTH_ERR;
    const int blocked = check_block(attempt.user);
    if (blocked == 1) return refuse_blocked(attempt);
    if (blocked < 0) return without_limiter(attempt, blocked, PAM_SUCCESS);
    forget(attempt);
    return PAM_SUCCESS;
}

// Refuses nobody: who comes here may have shown a key instead of a password.
int after_login(const login& attempt) {
    if (!is_exempt(attempt) && limiter_objection(attempt.user) == nullptr) forget(attempt);
    return PAM_SUCCESS;
}

int misused(pam_handle_t* pam) {
    pam_syslog(pam, LOG_ERR,
               "auth needs one of preauth, authfail and authsucc; account has authsucc");
    return PAM_SERVICE_ERR;
}

// --- The borders ---------------------------------------------------------------------------------

using judge = int (*)(const login&);

judge judge_of_auth(step what) {
    switch (what) {
        case step::preauth:
            return before_password;
        case step::authfail:
            return after_failure;
        case step::authsucc:
            return after_success;
        case step::unknown:
            break;
    }
    return nullptr;
}

judge judge_of_account(step what) {
    return what == step::unknown || what == step::authsucc ? after_login : nullptr;
}

int run(pam_handle_t* pam, int flags, int argc, const char** argv, judge (*judge_of)(step)) {
    try {
        const options settings = parse(pam, flags, argc, argv);
        const judge step_asked = judge_of(settings.what);
        if (step_asked == nullptr) return misused(pam);
        const char* user = nullptr;
        const int got = pam_get_user(pam, &user, nullptr);
        if (got != PAM_SUCCESS) return got == PAM_CONV_AGAIN ? PAM_INCOMPLETE : got;
        return step_asked({pam, settings, user != nullptr ? user : ""});
    } catch (const std::exception&) {
        return PAM_BUF_ERR;  // memory has run out
    }
}

}  // namespace

[[gnu::visibility("default")]] int pam_sm_authenticate(pam_handle_t* pam, int flags, int argc,
                                                       const char** argv) {
    return run(pam, flags, argc, argv, judge_of_auth);
}

[[gnu::visibility("default")]] int pam_sm_acct_mgmt(pam_handle_t* pam, int flags, int argc,
                                                    const char** argv) {
    return run(pam, flags, argc, argv, judge_of_account);
}

[[gnu::visibility("default")]] int pam_sm_setcred(pam_handle_t* /*pam*/, int /*flags*/,
                                                  int /*argc*/, const char** /*argv*/) {
    return PAM_SUCCESS;
}
