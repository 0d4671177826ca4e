// The options file as an operator sees it: read with its faults told, and changed through the store
// without losing what it holds.
#include "options_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <new>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

#include "failure.h"
#include "global_options.h"
#include "ostra_config.h"
#include "text.h"

using ravo::options_path;

namespace {

namespace fs = std::filesystem;

// Its lock keeps other ravoctl out. The copy has the same name, beside the file.
constexpr char copy_suffix[] = ".ravoctl";
constexpr char change_path[] = "/etc/config/vpn_options.conf.ravoctl";

[[noreturn]] void fail(const std::string& path, std::string_view what, int reason) {
    throw std::system_error(reason, std::generic_category(),
                            fmt::format("{} {}", escaped(path), what));
}

class descriptor {
  public:
    explicit descriptor(int opened) : fd(opened) {}
    ~descriptor() {
        if (fd >= 0) (void)close(fd);
    }
    descriptor(const descriptor&) = delete;
    descriptor& operator=(const descriptor&) = delete;
    int get() const { return fd; }
    // What was written may be refused as late as here. Returns 0 or -1 with errno.
    int sync_and_close() {
        const int synced = fsync(fd);
        const int reason = errno;
        const int closed = close(std::exchange(fd, -1));
        if (synced == 0) return closed;
        errno = reason;
        return -1;
    }

  private:
    int fd;
};

int take_lock(int (*take)(const char*), const char* path) {
    const int handle = take(path);
    if (handle >= 0) return handle;
    if (handle == ostra_lock_cannot_open) fail(path, "cannot be locked", errno);
    if (handle == ostra_lock_timed_out) {
        throw failure(
            timed_out,
            fmt::format("{} cannot be locked: somebody else has held its lock for seconds", path));
    }
    throw std::runtime_error(fmt::format("{} cannot be locked", path));
}

// --- Reading ------------------------------------------------------------------------------------

// Never waits, whatever stands in the file's place.
int open_for_reading(const char* path) {
    return open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
}

// The store judges a file the same way; an empty and a damaged one both mean the template to it.
options_document parse(const std::string& path) {
    const descriptor file(open_for_reading(path.c_str()));
    if (file.get() < 0 && errno == ENOENT) return {options_state::missing};
    if (file.get() < 0) fail(path, "cannot be read", errno);
    struct stat status = {};
    if (fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        throw std::runtime_error(fmt::format("{} is no regular file", escaped(path)));
    }
    if (status.st_size == 0) return {options_state::present, json_ptr(json_object())};
    json_error_t error = {};
    json_ptr root(json_loadfd(file.get(), 0, &error));
    if (json_is_object(root.get())) return {options_state::present, std::move(root)};
    if (root != nullptr) return {options_state::damaged, nullptr, "it holds no JSON object"};
    return {options_state::damaged, nullptr,
            fmt::format("line {}: {}", error.line, escaped(error.text))};
}

// To be called with the file's lock.
options_document parse_options() { return parse(options_path); }

// The store leaves no document when the disk is full, and an empty one when it could not have the
// lock to read.
bool holds_nothing(const options_document& options) {
    return json_object_size(options.root.get()) == 0;
}

// --- Writing ------------------------------------------------------------------------------------

// Where the file lies, or would lie, once links are followed: the store writes through them.
fs::path options_location() {
    constexpr int most_links = 40;  // as many as the kernel follows
    fs::path path = options_path;
    std::error_code none;
    for (int links = 0; links < most_links && fs::is_symlink(path, none); ++links) {
        path = path.parent_path() / fs::read_symlink(path);
    }
    return path;
}

fs::path copy_location() { return options_location().concat(copy_suffix); }

// Returns 0 or -1 with errno.
int write_all(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = write(fd, bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return -1;
        bytes.remove_prefix(static_cast<size_t>(written));
    }
    return 0;
}

// A replacement has owner and rights of what it replaces, as far as that is allowed.
void take_rights_of_options(int fd) {
    struct stat status = {};
    if (stat(options_path, &status) != 0) return;
    if (fchown(fd, status.st_uid, status.st_gid) == 0) (void)fchmod(fd, status.st_mode & ALLPERMS);
}

// To be called with the options file's exclusive lock.
void replace_options(const fs::path& replacement) {
    if (rename(replacement.c_str(), options_location().c_str()) != 0) {
        fail(options_path, "cannot be replaced", errno);
    }
}

// Holds back the signals that people end programs with. They act when it is gone. Whoever is
// started meanwhile has to let them through again, as the notifier does.
class held_signals {
  public:
    held_signals() {
        sigset_t held;
        (void)sigemptyset(&held);
        for (const int sig : {SIGHUP, SIGINT, SIGTERM}) (void)sigaddset(&held, sig);
        (void)pthread_sigmask(SIG_BLOCK, &held, &before);
    }
    ~held_signals() { (void)pthread_sigmask(SIG_SETMASK, &before, nullptr); }
    held_signals(const held_signals&) = delete;
    held_signals& operator=(const held_signals&) = delete;

  private:
    sigset_t before = {};
};

// A whole document in a file beside the options file, gone at its end unless it took the place or
// is to stay. Signals are held back for as long.
class options_copy {
  public:
    explicit options_copy(const json_t* document) : path(copy_location()) {
        const json_text text(json_dumps(document, 0));
        if (text == nullptr) throw std::bad_alloc();
        (void)unlink(path.c_str());
        constexpr mode_t everyone = 0666;
        descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, everyone));
        if (file.get() < 0) fail(path, "cannot be written, so nothing was changed", errno);
        take_rights_of_options(file.get());
        if (write_all(file.get(), text.get()) == 0 && file.sync_and_close() == 0) return;
        const int reason = errno;
        (void)unlink(path.c_str());
        fail(path, "cannot be written, so nothing was changed", reason);
    }
    ~options_copy() {
        if (!path.empty()) (void)unlink(path.c_str());
    }
    options_copy(const options_copy&) = delete;
    options_copy& operator=(const options_copy&) = delete;

    // To be called with the options file's exclusive lock.
    void take_place() {
        replace_options(path);
        path.clear();
    }
    // Returns where it stays.
    fs::path stay() { return std::exchange(path, {}); }

  private:
    const held_signals signals = {};  // until the copy is gone
    fs::path path;
};

// Puts the copy back, unless somebody has written a document in the meantime.
options_document look_again(options_copy& copy) {
    const file_lock lock(Ini_Conf_Write_Lock_File, options_path);
    options_document options = parse_options();
    if (holds_nothing(options)) copy.take_place();
    return options;
}

// What the file holds after the change. A fault is no reason to say that nothing was changed any
// more, nor to give the copy up.
options_document run_and_look(const std::function<void()>& change, options_copy& copy) {
    try {
        change();
        options_document options = read_options();
        return holds_nothing(options) ? look_again(copy) : std::move(options);
    } catch (const std::exception& error) {
        throw not_kept_error(
            fmt::format("whether the change was kept is not known: {}; what the file held before "
                        "is in {}",
                        error.what(), escaped(copy.stay().string())));
    }
}

}  // namespace

file_lock::file_lock(int (*take)(const char*), const char* path) : handle(take_lock(take, path)) {}

file_lock::~file_lock() { (void)Ini_Conf_Unlock_File(handle); }

file_lock lock_out_other_tools() { return {Ini_Conf_Write_Lock_File, change_path}; }

options_document read_options() {
    // Without a file there is nothing to lock, and perhaps no right to make its lock.
    const bool is_missing = access(options_path, F_OK) != 0 && errno == ENOENT;
    if (is_missing) return {options_state::missing};
    const file_lock lock(Ini_Conf_Read_Lock_File, options_path);
    return parse_options();
}

std::string damage_message(const options_document& options) {
    return fmt::format("{} is damaged: {}", options_path, options.damage);
}

std::optional<std::string> left_copy(const options_document& options) {
    const fs::path copy = copy_location();
    if (!holds_nothing(options) || holds_nothing(parse(copy))) return std::nullopt;
    return escaped(copy.string());
}

bool take_back_interrupted_change() {
    const fs::path copy = copy_location();
    if (holds_nothing(parse(copy))) return false;
    const file_lock lock(Ini_Conf_Write_Lock_File, options_path);
    if (!holds_nothing(parse_options())) return false;
    replace_options(copy);
    return true;
}

json_ptr complete_options(bool reset) {
    const file_lock lock(Ini_Conf_Write_Lock_File, options_path);
    options_document options = parse_options();
    if (options.state == options_state::damaged && !reset) {
        throw std::runtime_error(damage_message(options) + "; --reset begins a new one");
    }
    json_ptr root = options.root != nullptr ? std::move(options.root) : json_ptr(json_object());
    const json_ptr sections(ravo::GlobalConfig().get_tmpl());
    const size_t present = json_object_size(root.get());
    if (json_object_update_missing(root.get(), sections.get()) != 0) throw std::bad_alloc();
    if (json_object_size(root.get()) != present) options_copy(root.get()).take_place();
    return root;
}

json_ptr change_options(const json_t* before, const std::function<void()>& change) {
    options_copy copy(before);
    options_document after = run_and_look(change, copy);
    if (!holds_nothing(after)) return std::move(after.root);
    throw not_kept_error(fmt::format(
        "{} could not be changed; what it held before stands there again", options_path));
}
