// One login: asks the limiter, then the program that knows passwords, and counts a failure.
//
// Logins of one user are judged one after the other. Otherwise many at the same time would all be
// let through to the verifier before the first failure is counted.
#include "login.h"

#include <fcntl.h>
#include <jansson.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "block_settings.h"
#include "journal.h"
#include "json_ptr.h"
#include "ravo_api.h"
#include "session.h"
#include "zbservice.h"

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

// --- How long a block lasts ----------------------------------------------------------------------

struct io_deleter {
    void operator()(zb_io* io) const { zb_io_free(io); }
};

// As the daemon asks for them.
block_settings ask_block_settings() {
    const std::unique_ptr<zb_io, io_deleter> io(zb_io_create());
    const std::string request = std::string(R"({"path": ")") + block_settings_path + R"("})";
    if (zb_io_write(io.get(), request.data(), request.size()) != 0) return {};
    if (zb_call("vpncaas", "read_json", io.get(), 2, -1) != 0) return {};
    const auto* text = static_cast<const char*>(zb_io_read(io.get(), nullptr));
    const json_ptr reply(json_loads(text, 0, nullptr));
    const json_t* error = json_object_get(reply.get(), "error");
    if (!json_is_integer(error) || json_integer_value(error) != 0) return {};
    return to_block_settings(reply.get());
}

// When the user's last failure was counted.
std::optional<uint64_t> last_failure(const std::string& username) {
    db_query_cond of_user = {};
    of_user.count = -1;
    memcpy(of_user.field, "username", sizeof "username");
    memcpy(of_user.value, username.data(), username.size());
    db_privilege_user_block_query header = {};
    db_privilege_user_block_query* query = &header;
    (void)list_privilege_user_block(&of_user, &query);
    const std::unique_ptr<db_privilege_user_block_data, void (*)(void*)> rows(header.data, free);
    for (uint64_t n = 0; n < header.count; ++n) {
        if (header.data[n].username == username) return header.data[n].timestamp;
    }
    return std::nullopt;
}

std::string in_words(double seconds) {
    if (seconds < 120) return std::to_string(static_cast<int>(std::max(seconds, 1.0))) + " seconds";
    const double minutes = (seconds + 59) / 60;
    return minutes < 1e6 ? std::to_string(static_cast<int>(minutes)) + " minutes" : "a long time";
}

std::string reason_of_block(const std::string& username) {
    const std::string blocked = "Too many failed logins. Try again ";
    const block_settings settings = ask_block_settings();
    const std::optional<uint64_t> since = last_failure(username);
    if (!settings.enabled || !since) return blocked + "later.";
    const double elapsed = difftime(time(nullptr), static_cast<time_t>(*since));
    return blocked + "in " + in_words(static_cast<double>(settings.block_seconds) - elapsed) + ".";
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

// The limiter takes names that it could write to.
template <auto call>
int with_name(std::string username) {
    return call(username.data());
}

template <auto call>
void tell_limiter(const login& attempt) {
    const int result = with_name<call>(attempt.username);
    if (result == 0) return;
    syslog(LOG_ERR, "the limiter does not learn how the login of %s ended: %s",
           shown(attempt.username).c_str(), zb_strerror(result));
}

// Held while one login of a user is judged. Others with the same place among 1024 wait as well.
class turn_of_user {
  public:
    turn_of_user(const std::string& username, unsigned seconds) {
        const std::string folder = std::string(run_folder) + "/logins";
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
        if (is_counted) tell_limiter<delete_privilege_user_block>(attempt);
        return verdict::accepted;
    }
    if (status == exit_deferred && !attempt.given.get("auth_control_file").empty()) {
        return verdict::left_to_verifier;
    }
    if (status != exit_refused) {
        syslog(LOG_ERR, "%s has not judged the login of %s (exit status %d), which is refused",
               settings.verifier[0].c_str(), shown(attempt.username).c_str(), status);
    } else if (is_counted) {
        tell_limiter<add_privilege_user_block>(attempt);
    }
    return verdict::refused;
}

verdict ask_limiter_and_verify(const login& attempt, const configuration& settings) {
    const turn_of_user turn(attempt.username, 2 * settings.verifier_seconds);
    if (!turn.has_come()) return refuse(attempt, "Too many logins at once. Try again later.");
    const int blocked = with_name<check_privilege_user_block>(attempt.username);
    if (blocked == 1) return refuse(attempt, reason_of_block(attempt.username));
    if (blocked < 0) {
        syslog(LOG_ERR, "THE LIMITER IS AWAY (%s): the login of %s is %s", zb_strerror(blocked),
               shown(attempt.username).c_str(),
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
