// Who may talk to whom.
#include "peer.h"

#include <grp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

#include "bounds.h"
#include "report.h"

namespace zb {
namespace {
constexpr const char* configuration_file = "/etc/zbservice.conf";
constexpr std::size_t group_entry_bytes = 64 * kib;  // an entry lists all members of the group
constexpr const char* blanks = " \t\r\n";

struct file_closer {
    void operator()(std::FILE* file) const { (void)std::fclose(file); }
};

// Takes the first word off a line; empty at its end.
char* next_word(char*& rest) {
    char* word = rest + std::strspn(rest, blanks);
    rest = word + std::strcspn(word, blanks);
    if (*rest != '\0') *rest++ = '\0';
    return word;
}

gid_t look_up_group(const char* name) {
    const std::string_view text = name;
    gid_t number = no_group;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error == std::errc{} && end == text.data() + text.size() && number != no_group)
        return number;

    const std::unique_ptr<char[]> space(new (std::nothrow) char[group_entry_bytes]);
    group entry;
    group* found = nullptr;
    if (space) (void)getgrnam_r(name, &entry, space.get(), group_entry_bytes, &found);
    if (!found) report("%s: there is no group \"%s\"", configuration_file, name);
    return found ? found->gr_gid : no_group;
}

// Reads one line of the file: empty, or "group NAME_OR_NUMBER".
void read_line(char* line, gid_t& group) {
    line[std::strcspn(line, "#")] = '\0';
    const char* key = next_word(line);
    const char* value = next_word(line);
    if (*key == '\0') return;
    if (std::strcmp(key, "group") == 0 && *value != '\0' && *next_word(line) == '\0') {
        group = look_up_group(value);
    } else {
        report("%s: a line is not \"group NAME_OR_NUMBER\"", configuration_file);
    }
}

ucred credentials(int socket) {
    ucred peer = {0, no_user, no_group};
    socklen_t length = sizeof peer;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0)
        return {0, no_user, no_group};
    return peer;
}
}  // namespace

gid_t deployment_group() {
    const std::unique_ptr<std::FILE, file_closer> file(std::fopen(configuration_file, "re"));
    if (!file) {
        if (errno != ENOENT) report("%s: %s", configuration_file, std::strerror(errno));
        return no_group;
    }
    gid_t group = no_group;
    char line[512];
    while (std::fgets(line, sizeof line, file.get())) read_line(line, group);
    return group;
}

uid_t user_of(int socket) { return credentials(socket).uid; }

bool is_root_or_self(uid_t user) { return user == 0 || (user != no_user && user == geteuid()); }

bool is_member(int socket, gid_t group) {
    if (group == no_group) return false;
    if (credentials(socket).gid == group) return true;

    socklen_t bytes = 0;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, nullptr, &bytes) == 0 || errno != ERANGE)
        return false;
    const std::size_t count = bytes / sizeof(gid_t);
    const std::unique_ptr<gid_t[]> groups(new (std::nothrow) gid_t[count]);
    if (!groups || getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.get(), &bytes) != 0)
        return false;
    return std::find(groups.get(), groups.get() + count, group) != groups.get() + count;
}

}  // namespace zb
