// One login: asks the limiter, then the program that knows passwords, and counts a failure.
//
// Logins of one user are judged one after the other. Otherwise many at the same time would all be
// let through to the verifier before the first failure is counted.
#include "login.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <string_view>
#include <vector>

#include "limiter_client.h"

namespace {

constexpr int exit_accepted = 0;
constexpr int exit_refused = 1;
constexpr int exit_deferred = 2;
constexpr int exit_not_started = 127;

// --- What the client is told ---------------------------------------------------------------------

// Writes into a file that is there. OpenVPN removes it when nobody waits any more.
void write_answer(const environment& given, std::string_view variable, std::string_view text) {
    const std::string path(given.get(variable));
    const int fd = open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) return;
    if (write(fd, text.data(), text.size()) < 0)
        syslog(LOG_ERR, "cannot write %s: %s", path.c_str(), strerror(errno));
    close(fd);
}

verdict refuse(const login& attempt, const std::string& reason) {
    write_answer(attempt.given, "auth_failed_reason_file", reason);
    syslog(LOG_NOTICE, "login of %s refused: %s", shown(attempt.username).c_str(), reason.c_str());
    return verdict::refused;
}

// --- The verifier --------------------------------------------------------------------------------

// What OpenVPN's own file was: user and password in two lines, for the verifier alone.
class credentials_file {
  public:
    explicit credentials_file(const login& attempt) {
        if (!attempt.has_file) return;
        char path[] = "/run/ravo-openvpn/login-XXXXXX";
        const int fd = mkostemp(path, O_CLOEXEC);
        if (fd < 0) return;
        path_ = path;
        const std::string& bytes = attempt.credentials;
        if (write(fd, bytes.data(), bytes.size()) < 0)
            syslog(LOG_ERR, "cannot write %s: %s", path, strerror(errno));
        close(fd);
    }
    ~credentials_file() {
        if (!path_.empty()) (void)unlink(path_.c_str());
    }
    credentials_file(const credentials_file&) = delete;
    credentials_file& operator=(const credentials_file&) = delete;
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

std::vector<char*> pointers_to(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

pid_t start_verifier(const login& attempt, std::vector<std::string> arguments) {
    std::vector<std::string> variables;
    for (const auto& [name, value] : attempt.given.variables()) {
        variables.push_back(std::string(name).append("=").append(value));
    }
    const std::vector<char*> argument_list = pointers_to(arguments);
    const std::vector<char*> variable_list = pointers_to(variables);
    const pid_t child = fork();
    if (child != 0) return child;
    (void)setpgid(0, 0);
    (void)signal(SIGPIPE, SIG_DFL);
    (void)execve(argument_list[0], argument_list.data(), variable_list.data());
    _exit(exit_not_started);
}

// The exit status; -1 when a signal ended it, as one does after the time allowed.
int wait_for(pid_t verifier, unsigned seconds) {
    pollfd end = {static_cast<int>(syscall(SYS_pidfd_open, verifier, 0)), POLLIN, 0};
    if (end.fd >= 0) {
        if (poll(&end, 1, static_cast<int>(seconds * 1000)) == 0) (void)kill(-verifier, SIGKILL);
        close(end.fd);
    }
    int status = 0;
    while (waitpid(verifier, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int run_verifier(const login& attempt, const configuration& settings) {
    std::vector<std::string> arguments = settings.verifier;
    const credentials_file file(attempt);
    if (attempt.has_file) {
        if (file.path().empty()) return exit_not_started;
        arguments.push_back(file.path());
    }
    const pid_t child = start_verifier(attempt, arguments);
    return child < 0 ? exit_not_started : wait_for(child, settings.verifier_seconds);
}

// --- The limiter ---------------------------------------------------------------------------------

void tell_if_failed(int result, const login& attempt) {
    if (result == 0) return;
    syslog(LOG_ERR, "the limiter does not learn how the login of %s ended: %s",
           shown(attempt.username).c_str(), bus_result(result).c_str());
}

// Held while one login of a user is judged. Others with the same place among 1024 wait as well.
class turn_of_user {
  public:
    turn_of_user(const std::string& username, unsigned seconds) {
        const std::string folder = std::string(openvpn_folders.run) + "/logins";
        if (!make_folders(folder)) return;
        const size_t place = std::hash<std::string>{}(username) % 1024;
        fd_ = open((folder + "/" + std::to_string(place)).c_str(), O_RDWR | O_CREAT | O_CLOEXEC,
                   0600);
        struct sigaction wake_up = {};
        wake_up.sa_handler = [](int) {};  // without SA_RESTART: ends the waiting
        sigaction(SIGALRM, &wake_up, nullptr);
        alarm(seconds);
        has_come_ = fd_ >= 0 && flock(fd_, LOCK_EX) == 0;
        alarm(0);
    }
    ~turn_of_user() {
        if (fd_ >= 0) close(fd_);
    }
    turn_of_user(const turn_of_user&) = delete;
    turn_of_user& operator=(const turn_of_user&) = delete;
    bool has_come() const { return has_come_; }

  private:
    int fd_ = -1;
    bool has_come_ = false;
};

verdict verify(const login& attempt, const configuration& settings, bool is_counted) {
    const int status = run_verifier(attempt, settings);
    if (status == exit_accepted) {
        // Earlier mistakes of somebody who knows the password are forgotten.
        if (is_counted) tell_if_failed(forget_failures(attempt.username), attempt);
        return verdict::accepted;
    }
    if (status == exit_deferred && !attempt.given.get("auth_control_file").empty()) {
        return verdict::left_to_verifier;
    }
    if (status != exit_refused) {
        syslog(LOG_ERR, "%s has not judged the login of %s (exit status %d), which is refused",
               settings.verifier[0].c_str(), shown(attempt.username).c_str(), status);
    } else if (is_counted) {
        tell_if_failed(count_failure(attempt.username), attempt);
    }
    return verdict::refused;
}

verdict ask_limiter_and_verify(const login& attempt, const configuration& settings) {
    const turn_of_user turn(attempt.username, 2 * settings.verifier_seconds);
    if (!turn.has_come()) return refuse(attempt, "Too many logins at once. Try again later.");
    const int blocked = check_block(attempt.username);
    if (blocked == 1) return refuse(attempt, reason_of_block(attempt.username));
    if (blocked < 0) {
        syslog(LOG_ERR, "THE LIMITER IS AWAY (%s): the login of %s is %s",
               bus_result(blocked).c_str(), shown(attempt.username).c_str(),
               settings.is_open_without_limiter ? "judged without it" : "refused");
        if (!settings.is_open_without_limiter) {
            return refuse(attempt, "Logins cannot be judged now. Try again later.");
        }
    }
    return verify(attempt, settings, blocked == 0);
}

}  // namespace

login read_login(const environment& given, const char* file) {
    login attempt;
    attempt.given = given;
    attempt.username = given.get("username");
    if (file != nullptr) {
        std::ifstream in(file, std::ios::binary);
        attempt.credentials = {std::istreambuf_iterator<char>(in), {}};
        attempt.has_file = true;
        attempt.username = attempt.credentials.substr(0, attempt.credentials.find('\n'));
    }
    return attempt;
}

verdict judge(const login& attempt, const configuration& settings) {
    if (settings.verifier.empty()) {
        syslog(LOG_ERR, "%s names no verifier, so every login is refused", configuration_path);
        return refuse(attempt, "Logins are not set up.");
    }
    if (const char* objection = limiter_objection(attempt.username)) {
        syslog(LOG_NOTICE, "the limiter is not asked about the name \"%s\": %s",
               shown(attempt.username).c_str(), objection);
        return verify(attempt, settings, false);
    }
    return ask_limiter_and_verify(attempt, settings);
}

void answer(const login& attempt, bool is_accepted) {
    write_answer(attempt.given, "auth_control_file", is_accepted ? "1" : "0");
}
