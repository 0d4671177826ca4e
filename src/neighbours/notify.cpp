// notify: the notifier of a plain machine. Puts a notification's arguments into its template and
// delivers the text to the system log and, as one JSON line, to the notifications file. When
// /etc/ravod/notify.conf says so, it leaves it for ravod-notify, too.
//
//   notify send -A APP -C CATEGORY -M ID -l LEVEL -t TYPE TEMPLATE [ARG0 [ARG1 ...]]
//
// Arguments are data: they are put in once, braces in them are not looked at again, and whatever
// bytes they hold the result stays one line.
#include <fcntl.h>
#include <getopt.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string>

#include "notification.h"
#include "notify_settings.h"
#include "notify_spool.h"

namespace {

constexpr char notifications_file[] = "/var/log/network/notifications.jsonl";
constexpr mode_t notifications_mode = 0640;  // user names stand in it
constexpr unsigned lock_seconds = 5;         // waiting for other notifiers, at most

int usage() {
    (void)fputs("usage: notify send -A APP -C CATEGORY -M ID -l LEVEL -t TYPE TEMPLATE [ARG ...]\n",
                stderr);
    return 2;
}

// --- Delivery ------------------------------------------------------------------------------------

int priority_of(const char* level) {
    if (strcmp(level, "warn") == 0) return LOG_WARNING;
    if (strcmp(level, "error") == 0) return LOG_ERR;
    return LOG_INFO;
}

// One line in any log.
void tell_system_log(const notification& note) {
    openlog("notify", LOG_PID, LOG_DAEMON);
    syslog(priority_of(note.level), "%s", log_line(note).c_str());
    closelog();
}

// Keeps other notifiers out until the descriptor is closed. False after lock_seconds: whoever holds
// the file then is no notifier.
bool lock_file(int fd) {
    struct sigaction wake_up = {};
    wake_up.sa_handler = [](int) {};  // without SA_RESTART: ends the waiting
    sigaction(SIGALRM, &wake_up, nullptr);
    alarm(lock_seconds);
    const bool locked = flock(fd, LOCK_EX) == 0;
    alarm(0);
    return locked;
}

// Appends all or nothing: what a full disk has let through of a line is taken back.
bool append_line(int fd, const std::string& line) {
    struct stat before = {};
    if (fstat(fd, &before) != 0 || !S_ISREG(before.st_mode) || !lock_file(fd)) return false;
    if (fstat(fd, &before) != 0) return false;
    const ssize_t written = write(fd, line.data(), line.size());
    if (written == static_cast<ssize_t>(line.size())) return true;
    if (written > 0) (void)!ftruncate(fd, before.st_size);
    return false;
}

// The file is made when it is missing. A pipe in its place is not waited for.
bool append_to_file(const notification& note) {
    const std::string line = json_line(note);
    const int fd =
        open(notifications_file, O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
             notifications_mode);
    if (fd < 0) return false;
    const bool appended = !line.empty() && append_line(fd, line);
    return close(fd) == 0 && appended;
}

// For ravod-notify, which may do what a notifier in its caller's sandbox may not.
bool leave_for_delivery(const notification& note) {
    if (!are_delivered(read_notify_settings(), note.level)) return true;
    std::string reason;
    if (spool_entry(json_line(note), reason)) return true;
    (void)fprintf(stderr, "notify: cannot leave it in %s: %s\n", spool_new, reason.c_str());
    return false;
}

// Reads the options before the template. Returns false when one is missing or unknown.
bool parse_options(int argc, char** argv, notification& note) {
    int letter = 0;
    while ((letter = getopt(argc, argv, "+A:C:M:l:t:")) != -1) {
        switch (letter) {
            case 'A':
                note.application = optarg;
                break;
            case 'C':
                note.category = optarg;
                break;
            case 'M':
                note.message_id = optarg;
                break;
            case 'l':
                note.level = optarg;
                break;
            case 't':
                note.type = optarg;
                break;  // accepted; every notification is delivered alike
            default:
                return false;
        }
    }
    return note.application != nullptr && note.category != nullptr && note.message_id != nullptr &&
           note.level != nullptr && note.type != nullptr && optind < argc;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2 || strcmp(argv[1], "send") != 0) return usage();
    notification note;
    optind = 2;
    if (!parse_options(argc, argv, note)) return usage();
    const std::span<char*> words(argv, static_cast<size_t>(argc));
    const auto first_argument = static_cast<size_t>(optind) + 1;
    note.text = expand(argv[optind], words.subspan(first_argument));
    const bool is_kept = append_to_file(note);
    if (!is_kept) (void)fprintf(stderr, "notify: cannot write %s\n", notifications_file);
    const bool is_left = leave_for_delivery(note);
    // Last, and not for ever: a system log that nobody reads blocks its writers. The alarm then
    // ends the program.
    (void)signal(SIGALRM, SIG_DFL);
    alarm(lock_seconds);
    tell_system_log(note);
    return is_kept && is_left ? 0 : 1;
}
