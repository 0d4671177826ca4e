// What the hooks have been told and the daemon does not know yet, and which sessions are open.
#include "journal.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <vector>

#include "limiter_client.h"
#include "ravo_api.h"
#include "session.h"
#include "zbservice.h"

namespace {

constexpr std::string_view sent_ending = ".sent";

// --- Files ---------------------------------------------------------------------------------------

// Names of files in a folder but for those that begin with a dot.
std::vector<std::string> names_in(const std::string& folder) {
    std::vector<std::string> names;
    const std::unique_ptr<DIR, int (*)(DIR*)> open(opendir(folder.c_str()), closedir);
    if (open == nullptr) return names;
    while (const dirent* entry = readdir(open.get())) {
        const bool is_file = entry->d_type == DT_REG || entry->d_type == DT_UNKNOWN;
        if (is_file && entry->d_name[0] != '.') names.emplace_back(entry->d_name);
    }
    return names;
}

std::string file_bytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

enum class durability { memory, disk };

void sync_folder(const std::string& folder) {
    const int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    (void)fsync(fd);
    close(fd);
}

bool write_all(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = write(fd, bytes.data(), bytes.size());
        if (count <= 0) return false;
        bytes.remove_prefix(static_cast<size_t>(count));
    }
    return true;
}

// The file is there whole, or not at all.
bool write_whole(const std::string& folder, const std::string& name, std::string_view bytes,
                 durability kind) {
    const std::string draft = folder + "/." + name;
    const int fd = open(draft.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) return false;
    bool written = write_all(fd, bytes) && (kind == durability::memory || fsync(fd) == 0);
    written = close(fd) == 0 && written;
    if (written && rename(draft.c_str(), (folder + "/" + name).c_str()) == 0) {
        if (kind == durability::disk) sync_folder(folder);
        return true;
    }
    (void)unlink(draft.c_str());
    return false;
}

// Removes a file. False when it is still there, which is told.
bool is_removed(const std::string& path) {
    if (unlink(path.c_str()) == 0 || errno == ENOENT) return true;
    syslog(LOG_ERR, "cannot remove %s: %s", path.c_str(), strerror(errno));
    return false;
}

// The lock of whoever delivers. It ends with its owner.
class delivery_lock {
  public:
    delivery_lock(const std::string& folder, journal::when_busy what)
        : fd_(open((folder + "/lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
        const bool waits = what == journal::when_busy::wait;
        held_ = fd_ >= 0 && flock(fd_, waits ? LOCK_EX : LOCK_EX | LOCK_NB) == 0;
    }
    ~delivery_lock() {
        if (fd_ >= 0) close(fd_);
    }
    delivery_lock(const delivery_lock&) = delete;
    delivery_lock& operator=(const delivery_lock&) = delete;
    bool is_held() const { return held_; }

  private:
    int fd_;
    bool held_ = false;
};

std::string session_file(const std::string& key) {
    char name[32] = {};
    (void)snprintf(name, sizeof name, "%016zx", std::hash<std::string>{}(key));
    return name;
}

// --- The daemon ----------------------------------------------------------------------------------

bool is_same(db_conn_server_log one, const db_conn_server_log& other) {
    const auto same = [](const auto& a, const auto& b) { return strncmp(a, b, sizeof a) == 0; };
    return same(one.username, other.username) && one.vpn_type == other.vpn_type &&
           one.uptime == other.uptime && one.time == other.time &&
           same(one.device_info, other.device_info) && same(one.source_ip, other.source_ip) &&
           same(one.vpn_ip, other.vpn_ip) && one.tx_total == other.tx_total &&
           one.rx_total == other.rx_total && same(one.outgoing, other.outgoing) &&
           one.action == other.action;
}

// Whether the table has the row; nothing when the daemon does not tell.
std::optional<bool> is_recorded(const db_conn_server_log& row) {
    db_query_cond of_that_time = {};
    of_that_time.count = -1;
    memcpy(of_that_time.field, "time", sizeof "time");
    (void)snprintf(of_that_time.value, sizeof of_that_time.value, "%llu",
                   static_cast<unsigned long long>(row.time));
    db_conn_server_log_query header = {};
    db_conn_server_log_query* query = &header;
    (void)list_conn_server_log(&of_that_time, &query);
    if (header.data == nullptr) return std::nullopt;
    const std::unique_ptr<db_conn_server_log, void (*)(void*)> rows(header.data, free);
    for (uint64_t n = 0; n < header.count; ++n) {
        if (is_same(header.data[n], row)) return true;
    }
    return false;
}

// Whether the daemon cannot have seen the request that ended so.
bool was_never_sent(int result) {
    return result == ZB_ERROR_UNREACHABLE || result == ZB_ERROR_DENIED ||
           result == ZB_ERROR_UNTRUSTED || result == ZB_ERROR_MEMORY;
}

void register_device(const environment& connect) {
    std::optional<db_device_info_data> device = to_device(connect);
    if (!device) return;
    ravo_mobile_gen_uuid_data_get uuid = {};
    const int result = add_device_info(&*device, &uuid);
    if (result != 0) {
        syslog(LOG_WARNING, "device %s is not registered: %s", device->mac,
               bus_result(result).c_str());
    }
}

}  // namespace

bool make_folders(const std::string& folder) {
    for (size_t at = 1; at != std::string::npos;) {
        at = folder.find('/', at + 1);
        const std::string part = folder.substr(0, at);
        const mode_t mode = part.find("/ravo-") == std::string::npos ? 0755 : 0700;
        if (mkdir(part.c_str(), mode) != 0 && errno != EEXIST) return false;
    }
    return true;
}

// --- Taking in -----------------------------------------------------------------------------------

journal::journal(const journal_folders& where, unsigned most)
    : most_(most),
      run_(where.run),
      new_(run_ + "/new"),
      waiting_(std::string(where.spool) + "/waiting"),
      open_(std::string(where.spool) + "/open") {}

bool journal::take(const environment& event) const {
    if (access(new_.c_str(), W_OK) != 0 && !make_folders(new_)) return false;
    if (names_in(new_).size() >= most_) return false;
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    char name[64] = {};
    (void)snprintf(name, sizeof name, "%011lld%09ld-%d", static_cast<long long>(now.tv_sec),
                   now.tv_nsec, getpid());
    return write_whole(new_, name, event.bytes(), durability::memory);
}

// --- Delivering ----------------------------------------------------------------------------------

// The files of all events by name, oldest first. One that was being moved when its mover died is
// in both folders.
std::map<std::string, std::string> journal::waiting() const {
    std::map<std::string, std::string> files;
    for (const std::string& name : names_in(waiting_)) files[name] = waiting_ + "/" + name;
    for (const std::string& name : names_in(new_)) {
        const std::string path = new_ + "/" + name;
        if (!files.emplace(name, path).second) (void)unlink(path.c_str());
    }
    return files;
}

bool journal::deliver(when_busy what) {
    if (!make_folders(new_) || !make_folders(waiting_) || !make_folders(open_)) {
        syslog(LOG_ERR, "cannot make %s, %s or %s: %s", new_.c_str(), waiting_.c_str(),
               open_.c_str(), strerror(errno));
        return false;
    }
    bool is_done = true;
    bool is_kept = true;
    do {
        const delivery_lock lock(run_, what);
        if (!lock.is_held()) return true;
        is_done = deliver_all();
        is_kept = is_done || keep_on_disk();
        // Those who came in vain while the lock was held have left something.
    } while (is_kept && !(is_done ? waiting().empty() : names_in(new_).empty()));
    return is_done;
}

bool journal::deliver_all() {
    std::map<std::string, std::string> files = waiting();
    while (!files.empty()) {
        std::string path = files.begin()->second;
        files.erase(files.begin());
        const auto has_later = [&files](const environment& connect) {
            for (const auto& [name, later] : files) {
                if (is_same_session(environment(file_bytes(later)), connect)) return true;
            }
            return false;
        };
        if (access(path.c_str(), R_OK) != 0) return false;  // another user's
        if (!deliver_one(path, environment(file_bytes(path)), has_later)) return false;
        if (!is_removed(path)) return false;
    }
    return true;
}

bool journal::deliver_one(std::string& path, const environment& event,
                          const later_events& has_later) {
    const std::string_view hook = event.get(hook_variable);
    if (hook == "connect") return open_session(path, event);
    if (hook == "disconnect") return close_session(path, event);
    if (hook == "server-up" || hook == "server-down") return close_lost(event, has_later);
    syslog(LOG_ERR, "%s is no event, and is removed", path.c_str());
    return true;
}

bool journal::open_session(std::string& path, const environment& event) {
    if (!send_once(path, to_connection(event, session_action::connected))) return false;
    if (!write_whole(open_, session_file(session_key(event)), event.bytes(), durability::disk)) {
        syslog(LOG_ERR, "cannot write to %s: %s", open_.c_str(), strerror(errno));
    }
    register_device(event);
    return true;
}

bool journal::close_session(std::string& path, const environment& event) {
    if (!send_once(path, to_connection(event, session_action::disconnected))) return false;
    (void)unlink(open_file_of(event).c_str());
    return true;
}

// The file of the open session that a disconnect ends.
std::string journal::open_file_of(const environment& disconnect) const {
    std::string path = open_ + "/" + session_file(session_key(disconnect));
    if (access(path.c_str(), F_OK) == 0) return path;
    for (const std::string& name : names_in(open_)) {
        std::string other = open_ + "/" + name;
        if (is_same_session(environment(file_bytes(other)), disconnect)) return other;
    }
    return path;
}

// A server that comes up has no sessions yet, one that goes down has none any more.
bool journal::close_lost(const environment& event, const later_events& has_later) {
    const std::string_view server = event.get(server_variable);
    const bool others_too = event.get(hook_variable) == "server-up";
    for (const std::string& name : names_in(open_)) {
        std::string path = open_ + "/" + name;
        const environment connect(file_bytes(path));
        const std::string_view its_server = connect.get(server_variable);
        if (!is_same_server(its_server, server) && !(others_too && !is_running(its_server)))
            continue;
        if (has_later(connect)) continue;
        const auto noticed = static_cast<time_t>(event.number(noticed_variable));
        if (!send_once(path, to_lost_connection(connect, noticed))) return false;
        (void)unlink(path.c_str());
    }
    return true;
}

bool journal::send_once(std::string& path, const db_conn_server_log& row) {
    if (path.ends_with(sent_ending)) {
        const std::optional<bool> recorded = is_recorded(row);
        if (!recorded) return false;
        if (*recorded) return true;
    } else {
        const std::string marked = path + std::string(sent_ending);
        if (rename(path.c_str(), marked.c_str()) != 0) {
            syslog(LOG_ERR, "cannot rename %s: %s", path.c_str(), strerror(errno));
            return false;
        }
        path = marked;
    }
    db_conn_server_log sent = row;
    const int result = add_conn_server_log(&sent);
    if (result == 0) return true;
    if (was_never_sent(result)) {
        const std::string unmarked = path.substr(0, path.size() - sent_ending.size());
        if (rename(path.c_str(), unmarked.c_str()) == 0) path = unmarked;
    }
    syslog(LOG_WARNING, "ravod does not take records (%s); they wait in %s",
           bus_result(result).c_str(), waiting_.c_str());
    return false;
}

// Moves the events to the disk. False when one cannot be written there.
bool journal::keep_on_disk() const {
    size_t count = names_in(waiting_).size();
    for (const auto& [name, path] : waiting()) {
        if (!path.starts_with(new_)) continue;
        if (count >= most_) {
            syslog(LOG_ERR, "%u events wait already; the %s of %s is LOST", most_,
                   std::string(environment(file_bytes(path)).get(hook_variable)).c_str(),
                   shown(user_of(environment(file_bytes(path)))).c_str());
        } else if (!write_whole(waiting_, name, file_bytes(path), durability::disk)) {
            syslog(LOG_ERR, "cannot write to %s: %s", waiting_.c_str(), strerror(errno));
            return false;
        }
        if (!is_removed(path)) return false;
        ++count;
    }
    return true;
}
