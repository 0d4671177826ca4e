// What ravoctl has deleted and cleaned in this life of the daemon, on which it depends what the
// next delete or clean does.
#include "daemon_life.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "bus.h"

namespace {

// The number that the kernel has given to the socket which listens at the daemon's address; 0:
// there is none. Its line ends in the number and the address, and a socket that listens has the
// flag.
json_int_t listening_socket() {
    constexpr unsigned long listens = 0x10000;
    std::ifstream sockets("/proc/net/unix");
    std::string line;
    while (std::getline(sockets, line)) {
        std::istringstream words(line);
        std::string pointer, references, protocol, type, state, address;
        unsigned long flags = 0;
        json_int_t number = 0;
        words >> pointer >> references >> protocol >> std::hex >> flags >> std::dec >> type >>
            state >> number >> address;
        if (words && (flags & listens) != 0 && address == daemon_endpoint) return number;
    }
    return 0;
}

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(),
                            fmt::format("{}: {}", daemon_life::path, what));
}

std::string read_all(int fd) {
    char block[4096];
    std::string text;
    for (ssize_t size = 0; (size = read(fd, block, sizeof block)) != 0;) {
        if (size < 0) fail("cannot be read");
        text.append(block, static_cast<size_t>(size));
    }
    return text;
}

json_ptr parse(const std::string& text) {
    if (text.empty()) return json_ptr(json_object());
    json_ptr note(json_loadb(text.data(), text.size(), 0, nullptr));
    if (json_is_object(note.get())) return note;
    throw std::runtime_error(fmt::format(
        "{} is damaged; when nothing was deleted or cleaned since ravod's start, remove it",
        daemon_life::path));
}

}  // namespace

effect forecast(const table_history& history, bool is_temporary, deed what, uint64_t count) {
    const bool delete_was_first = history.deletes != 0 && !history.clean_was_first;
    if (what == deed::clean) {
        if (!delete_was_first) return effect::as_asked;
        return is_temporary ? effect::loses_table : effect::nothing;
    }
    if (is_temporary && (history.clean_was_first || history.deletes + count > 1)) {
        return effect::loses_table;
    }
    return history.clean_was_first ? effect::empties : effect::as_asked;
}

table_history after(table_history history, deed what, uint64_t count) {
    const bool is_first = history.deletes == 0 && history.cleans == 0;
    history.clean_was_first = is_first ? what == deed::clean : history.clean_was_first;
    (what == deed::clean ? history.cleans : history.deletes) += count;
    return history;
}

daemon_life::daemon_life() : fd(open(path, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600)) {
    if (fd < 0) fail("cannot be opened");
    try {
        if (flock(fd, LOCK_EX) != 0) fail("cannot be locked");
        note = parse(read_all(fd));
        const json_int_t socket = listening_socket();
        if (json_integer_value(json_object_get(note.get(), "socket")) == socket) return;
        note.reset(json_pack("{s:I, s:{}}", "socket", socket, "tables"));
        if (note == nullptr) throw std::bad_alloc();
    } catch (...) {
        close(fd);
        throw;
    }
}

daemon_life::~daemon_life() { close(fd); }

table_history daemon_life::history_of(const std::string& table) const {
    const json_t* tables = json_object_get(note.get(), "tables");
    const json_t* known = json_object_get(tables, table.c_str());
    const auto number = [known](const char* name) {
        return static_cast<uint64_t>(json_integer_value(json_object_get(known, name)));
    };
    return {number("deletes"), number("cleans"),
            json_is_true(json_object_get(known, "clean_was_first"))};
}

void daemon_life::remember(const std::string& table, const table_history& history) {
    json_t* tables = json_object_get(note.get(), "tables");
    json_t* known =
        json_pack("{s:I, s:I, s:b}", "deletes", static_cast<json_int_t>(history.deletes), "cleans",
                  static_cast<json_int_t>(history.cleans), "clean_was_first",
                  history.clean_was_first ? 1 : 0);
    if (json_object_set_new(tables, table.c_str(), known) != 0) throw std::bad_alloc();
    const json_text text(json_dumps(note.get(), 0));
    if (text == nullptr) throw std::bad_alloc();
    const std::string whole = std::string(text.get()) + "\n";
    // Cut last: an older note that cannot be replaced is not lost.
    const auto size = static_cast<ssize_t>(whole.size());
    if (pwrite(fd, whole.data(), whole.size(), 0) != size || ftruncate(fd, size) != 0) {
        fail("cannot be written");
    }
}
