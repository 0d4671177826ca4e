// ravod-notify: delivers the notifications that the notifier has left in its spool, by mail,
// through apprise and to the executables of a folder, as /etc/ravod/notify.conf says.
//
// Each way is a channel with a queue of its own, delivered in order: what fails is tried again,
// later each time, and what comes after it waits. Other channels go on meanwhile. An entry leaves a
// queue when the channel's program has ended with status 0, so a notification comes twice only when
// this program is ended between the two; then both have the same name. Texts reach programs on
// their standard input alone.
#include <fcntl.h>
#include <jansson.h>
#include <poll.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "descriptor.h"
#include "notify_mail.h"
#include "notify_settings.h"
#include "notify_spool.h"
#include "plain_text.h"

namespace {

namespace fs = std::filesystem;
using texts = std::vector<std::string>;
using std::chrono::steady_clock;

constexpr int program_seconds = 60;  // a program that takes longer is ended
constexpr std::chrono::seconds longest_wait(600);

void complain(const std::string& message) {
    (void)fprintf(stderr, "ravod-notify: %s\n", message.c_str());
}

// --- Notifications -------------------------------------------------------------------------------

std::string text_of(json_t* object, const char* key) {
    const char* text = json_string_value(json_object_get(object, key));
    return text != nullptr ? text : "";
}

// A name that mail headers and options may hold.
std::string host_name() {
    char name[256] = {};
    (void)gethostname(name, sizeof name - 1);
    std::string host(name);
    std::erase_if(host, [](char c) {
        return (c < '0' || c > '9') && (c < 'A' || c > 'Z') && (c < 'a' || c > 'z') && c != '-' &&
               c != '.';
    });
    return host.empty() || host[0] == '-' ? "localhost" : host;
}

// What an entry says; none when it is no notification.
std::optional<notice> to_notice(const std::string& entry, const std::string& line) {
    const std::unique_ptr<json_t, void (*)(json_t*)> object(
        json_loadb(line.data(), line.size(), 0, nullptr),
        [](json_t* value) { json_decref(value); });
    if (!json_is_object(object.get())) return {};
    notice what;
    what.entry = entry;
    what.host = host_name();
    what.time = json_integer_value(json_object_get(object.get(), "time"));
    what.text = escape(text_of(object.get(), "text"), is_control);
    // The levels of the catalogue; any other word is none of ours.
    const std::string level = text_of(object.get(), "level");
    what.level = level == "warn" || level == "error" ? level : "info";
    return what;
}

// --- Channels ------------------------------------------------------------------------------------

// A program that takes one notification on its standard input.
struct delivery {
    texts command;
    std::string input;
};

struct channel {
    std::string name;  // of its queue
    std::function<delivery(const notice& what, const std::string& line)> prepare;
};

delivery mail_delivery(const notify_settings& settings, const notice& what) {
    texts command = {settings.sendmail, "-i", "-f", settings.mail_from};
    command.insert(command.end(), settings.mail_to.begin(), settings.mail_to.end());
    return {command, to_mail(what, settings.mail_from, settings.mail_to)};
}

delivery apprise_delivery(const notify_settings& settings, const notice& what) {
    const std::map<std::string, std::string> types = {
        {"info", "info"}, {"warn", "warning"}, {"error", "failure"}};
    return {{settings.apprise, "--config=" + settings.apprise_config,
             "--title=[" + what.host + "] " + what.level,
             "--notification-type=" + types.at(what.level), "--input-format=text"},
            what.text + "\n"};
}

// Names as run-parts takes them, so that backups and leftovers of packages are none.
bool is_program_name(const std::string& name) {
    return std::ranges::all_of(name, [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
               c == '-' || c == '_';
    });
}

// Nobody else may have put it there or may change it.
bool is_trusted(const std::string& path) {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 && (status.st_uid == 0 || status.st_uid == geteuid()) &&
           (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

texts programs_in(const std::string& folder) {
    texts programs;
    if (!is_trusted(folder)) {
        complain(folder + ": not there, or others may change it; nothing in it is run");
        return programs;
    }
    for (const std::string& name : entries_of(folder)) {
        const std::string path = fs::path(folder) / name;
        std::error_code none;
        if (!is_program_name(name) || !fs::is_regular_file(path, none) ||
            access(path.c_str(), X_OK) != 0) {
            continue;
        }
        if (is_trusted(path))
            programs.push_back(name);
        else
            complain(path + ": others may change it, so it is not run");
    }
    return programs;
}

std::vector<channel> channels_of(const notify_settings& settings) {
    std::vector<channel> channels;
    if (!settings.mail_to.empty()) {
        channels.push_back({"mail", [&settings](const notice& what, const std::string&) {
                                return mail_delivery(settings, what);
                            }});
    }
    if (!settings.apprise_config.empty()) {
        channels.push_back({"apprise", [&settings](const notice& what, const std::string&) {
                                return apprise_delivery(settings, what);
                            }});
    }
    if (settings.directory.empty()) return channels;
    for (const std::string& name : programs_in(settings.directory)) {
        const std::string path = fs::path(settings.directory) / name;
        channels.push_back({"program-" + name, [path](const notice&, const std::string& line) {
                                return delivery{{path}, line};
                            }});
    }
    return channels;
}

// --- Programs ------------------------------------------------------------------------------------

// A file in memory, so that nobody has to write while the program reads.
descriptor input_of(const std::string& bytes) {
    descriptor file(memfd_create("notification", MFD_CLOEXEC));
    if (file.is_open()) {
        (void)!write(file.get(), bytes.data(), bytes.size());
        (void)lseek(file.get(), 0, SEEK_SET);
    }
    return file;
}

// Starts a program as the leader of a process group, with no signal blocked. What it prints goes to
// the log. Returns -1 when it cannot be started.
pid_t start(const delivery& job, const std::string& entry) {
    const descriptor input = input_of(job.input);
    std::vector<char*> words;
    for (const std::string& word : job.command) words.push_back(const_cast<char*>(word.c_str()));
    words.push_back(nullptr);
    std::string name = "NOTIFICATION=" + entry;
    std::string path = "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
    std::string language = "LC_ALL=C.UTF-8";
    char* environment[] = {name.data(), path.data(), language.data(), nullptr};

    posix_spawnattr_t how;
    posix_spawn_file_actions_t files;
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_init(&how);
    posix_spawnattr_setflags(&how, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK);
    posix_spawnattr_setsigmask(&how, &none);
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_adddup2(&files, input.get(), STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&files, STDERR_FILENO, STDOUT_FILENO);
    pid_t child = -1;
    const int error = posix_spawn(&child, words[0], &files, &how, words.data(), environment);
    posix_spawn_file_actions_destroy(&files);
    posix_spawnattr_destroy(&how);
    if (error == 0) return child;
    complain(job.command[0] + ": " + strerror(error));
    return -1;
}

// Runs a program to its end. Whether it ended with status 0 in time; what it has started in turn is
// ended with it when it did not.
bool run(const delivery& job, const std::string& entry) {
    const pid_t child = start(job, entry);
    if (child < 0) return false;
    const descriptor end(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
    pollfd event = {end.get(), POLLIN, 0};
    const bool is_in_time = poll(&event, 1, program_seconds * 1000) == 1;
    if (!is_in_time) kill(-child, SIGKILL);
    int status = 0;
    if (waitpid(child, &status, 0) == child && status == 0 && is_in_time) return true;
    complain(job.command[0] + (is_in_time ? ": failed" : ": took too long"));
    return false;
}

// --- Delivery ------------------------------------------------------------------------------------

// Since when a channel fails, for as long as it does.
struct failing {
    steady_clock::time_point next_try{};
    std::chrono::seconds wait{};
};
using failures = std::map<std::string, failing>;

bool is_given_up(const notify_settings& settings, const std::string& entry) {
    return time(nullptr) - time_of_entry(entry) > time_t{3600} * settings.give_up_hours;
}

// Later each time. A failure that has lasted so long is not waited for.
void put_off(failing& state, const notify_settings& settings) {
    const std::chrono::seconds first(settings.retry_seconds);
    state.wait =
        state.wait == std::chrono::seconds::zero() ? first : std::min(state.wait * 2, longest_wait);
    state.next_try = steady_clock::now() + state.wait;
}

// Delivers a queue up to the first failure. Whether nothing is left in it.
bool deliver(const channel& to, const notify_settings& settings, failures& failed) {
    const std::string queue = std::string(spool_queues) + "/" + to.name + "/";
    for (const std::string& entry : entries_of(queue)) {
        const std::string line = read_entry(queue + entry);
        const std::optional<notice> what = to_notice(entry, line);
        if (!what) complain(to.name + ": " + entry + " is no notification; it is removed");
        if (what && !run(to.prepare(*what, line), entry)) {
            if (!is_given_up(settings, entry)) {
                put_off(failed[to.name], settings);
                return false;
            }
            complain(to.name + ": given up: " + what->text);
        } else {
            failed.erase(to.name);
        }
        unlink((queue + entry).c_str());
    }
    return true;
}

// One round over everything that waits and is due. Whether nothing is left.
bool deliver_all(failures& failed) {
    const notify_settings settings = read_notify_settings();
    for (const std::string& line : settings.unknown_lines) {
        complain(std::string(notify_settings_path) +
                 ": not understood: " + escape(line, is_control));
    }
    const std::vector<channel> channels = channels_of(settings);
    texts names;
    for (const channel& to : channels) names.push_back(to.name);
    const auto is_wanted = [&settings](const std::string& line) {
        const std::optional<notice> what = to_notice("", line);
        return what && are_delivered(settings, what->level);
    };
    distribute(names, is_wanted, complain);
    bool is_done = true;
    for (const channel& to : channels) {
        const auto state = failed.find(to.name);
        const bool is_due = state == failed.end() || state->second.next_try <= steady_clock::now();
        is_done = is_due && deliver(to, settings, failed) && is_done;
    }
    return is_done && entries_of(spool_new).empty();
}

// --- Waiting -------------------------------------------------------------------------------------

// Whoever delivers holds it until the end.
descriptor take_lock(bool may_wait) {
    descriptor lock(open(spool_folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!lock.is_open()) {
        complain(std::string(spool_folder) + ": " + strerror(errno));
        return lock;
    }
    if (flock(lock.get(), LOCK_EX | (may_wait ? 0 : LOCK_NB)) == 0) return lock;
    complain("another one delivers already; SIGHUP has it try at once");
    return descriptor();
}

// What ends the waiting: a new entry, or SIGHUP.
class wake_ups {
  public:
    wake_ups() : arrivals_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
        sigset_t hup;
        sigemptyset(&hup);
        sigaddset(&hup, SIGHUP);
        sigprocmask(SIG_BLOCK, &hup, nullptr);
        signals_ = descriptor(signalfd(-1, &hup, SFD_CLOEXEC | SFD_NONBLOCK));
        inotify_add_watch(arrivals_.get(), spool_new, IN_MOVED_TO);
    }

    // Waits until the first channel is due, or for less. Everything is due after SIGHUP.
    void wait(failures& failed) const {
        steady_clock::time_point until = steady_clock::now() + longest_wait;
        for (const auto& [name, state] : failed) until = std::min(until, state.next_try);
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - steady_clock::now());
        pollfd events[] = {{arrivals_.get(), POLLIN, 0}, {signals_.get(), POLLIN, 0}};
        (void)poll(events, std::size(events), std::max(0, static_cast<int>(left.count())));
        drain(arrivals_);
        if (drain(signals_)) {
            for (auto& [name, state] : failed) state = {};
        }
    }

  private:
    // Whether there was anything to be read.
    static bool drain(const descriptor& from) {
        char bytes[4096];
        bool was_any = false;
        while (read(from.get(), bytes, sizeof bytes) > 0) was_any = true;
        return was_any;
    }

    descriptor arrivals_, signals_;
};

int usage() {
    (void)fputs("usage: ravod-notify [--once]\n", stderr);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    const bool is_once = argc == 2 && strcmp(argv[1], "--once") == 0;
    if (argc > 1 && !is_once) return usage();
    const wake_ups waking;
    const descriptor lock = take_lock(!is_once);
    if (!lock.is_open()) return 1;
    failures failed;
    while (!deliver_all(failed)) {
        if (is_once) return 1;
        waking.wait(failed);
    }
    return 0;
}
