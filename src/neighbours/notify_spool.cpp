// The spool between the notifier and ravod-notify.
#include "notify_spool.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "descriptor.h"

namespace {

namespace fs = std::filesystem;

constexpr time_t stale_seconds = 600;  // an unfinished entry of a notifier that is gone

// A name that begins with the time in nanoseconds, of one width, and is like no other.
std::string entry_name() {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    char name[64];
    (void)snprintf(name, sizeof name, "%011lld.%09ld-%d", static_cast<long long>(now.tv_sec),
                   now.tv_nsec, getpid());
    return name;
}

// Names stand in the headers of mails. Whoever writes into "new" may have another one in mind.
bool is_entry_name(const std::string& name) {
    return name.find_first_not_of("0123456789.-") == std::string::npos;
}

bool write_whole(const std::string& path, const std::string& bytes) {
    const descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    return file.is_open() &&
           write(file.get(), bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()) &&
           fdatasync(file.get()) == 0;
}

std::string at(const std::string& folder, const std::string& name) { return folder + "/" + name; }

void remove_stale(const std::string& folder) {
    std::error_code none;
    for (const fs::directory_entry& file : fs::directory_iterator(folder, none)) {
        struct stat status = {};
        if (file.path().filename().native().starts_with('.') &&
            lstat(file.path().c_str(), &status) == 0 &&
            status.st_mtime < time(nullptr) - stale_seconds) {
            unlink(file.path().c_str());
        }
    }
}

void remove_other_queues(const std::vector<std::string>& channels, const tell& complain) {
    std::error_code none;
    for (const fs::directory_entry& queue : fs::directory_iterator(spool_queues, none)) {
        const std::string name = queue.path().filename();
        if (std::ranges::find(channels, name) != channels.end()) continue;
        const size_t lost = entries_of(queue.path()).size();
        if (lost > 0)
            complain(name + " is no longer configured: " + std::to_string(lost) + " lost");
        fs::remove_all(queue.path(), none);
    }
}

// The link may be there already, from a run that was ended between linking and removing.
void link_into(const std::string& channel, const std::string& name, const tell& complain) {
    const std::string queue = at(spool_queues, channel);
    (void)mkdir(queue.c_str(), 0700);
    if (entries_of(queue).size() >= most_entries) {
        complain(channel + ": too many notifications wait; one is lost");
        return;
    }
    if (link(at(spool_new, name).c_str(), at(queue, name).c_str()) != 0 && errno != EEXIST) {
        complain(channel + ": " + strerror(errno) + "; a notification is lost");
    }
}

}  // namespace

bool spool_entry(const std::string& line, std::string& reason) {
    if (line.empty() || line.size() > most_entry_bytes) {
        reason = "it is too large";
        return false;
    }
    if (entries_of(spool_new).size() >= most_entries) {
        reason = "too many wait";
        return false;
    }
    const std::string name = entry_name();
    const std::string unfinished = at(spool_new, "." + name);
    if (write_whole(unfinished, line) &&
        rename(unfinished.c_str(), at(spool_new, name).c_str()) == 0) {
        return true;
    }
    reason = strerror(errno);
    unlink(unfinished.c_str());
    return false;
}

std::vector<std::string> entries_of(const std::string& folder) {
    std::vector<std::string> names;
    std::error_code none;
    for (const fs::directory_entry& file : fs::directory_iterator(folder, none)) {
        std::string name = file.path().filename();
        if (!name.starts_with('.')) names.push_back(std::move(name));
    }
    std::ranges::sort(names);
    return names;
}

std::string read_entry(const std::string& path) {
    const descriptor file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status = {};
    if (!file.is_open() || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
        status.st_size > static_cast<off_t>(most_entry_bytes)) {
        return {};
    }
    std::string bytes(static_cast<size_t>(status.st_size), '\0');
    return read(file.get(), bytes.data(), bytes.size()) == status.st_size ? bytes : std::string();
}

time_t time_of_entry(const std::string& name) { return strtoll(name.c_str(), nullptr, 10); }

void distribute(const std::vector<std::string>& channels, const wants_entry& is_wanted,
                const tell& complain) {
    (void)mkdir(spool_queues, 0700);
    remove_other_queues(channels, complain);
    remove_stale(spool_new);
    for (const std::string& name : entries_of(spool_new)) {
        if (is_entry_name(name) && is_wanted(read_entry(at(spool_new, name)))) {
            for (const std::string& channel : channels) link_into(channel, name, complain);
        }
        std::error_code none;
        fs::remove_all(at(spool_new, name), none);
    }
}
