// The notifications that a test's program sends. A notifier at its own path, record_notify.cpp,
// sends its words back. RECORD_NOTIFY is that program.
#ifndef TESTS_SUPPORT_RECORDING_NOTIFIER_H
#define TESTS_SUPPORT_RECORDING_NOTIFIER_H

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

// Puts the notifier in its place, from construction to destruction.
class recording_notifier {
  public:
    recording_notifier() : fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        constexpr char name[] = "test/notifications";
        memcpy(address.sun_path + 1, name, sizeof name - 1);
        const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + sizeof name);
        if (bind(fd, reinterpret_cast<const sockaddr*>(&address), length) != 0) give_up("bind");
        std::filesystem::create_directories("/usr/local/sbin");
        std::filesystem::create_symlink(RECORD_NOTIFY, path);
    }
    ~recording_notifier() {
        std::filesystem::remove(path);
        close(fd);
    }
    recording_notifier(const recording_notifier&) = delete;
    recording_notifier& operator=(const recording_notifier&) = delete;

    // The words of the next notification, a '\n' behind each.
    std::string receive() const {
        constexpr int patience_ms = 20000;
        pollfd event = {fd, POLLIN, 0};
        int ready = 0;
        while ((ready = poll(&event, 1, patience_ms)) < 0 && errno == EINTR) {
        }
        if (ready != 1) give_up("waited in vain");
        std::string words(size_t{64} * 1024, '\0');
        const ssize_t length = recv(fd, words.data(), words.size(), 0);
        if (length < 0) give_up("recv");
        words.resize(static_cast<size_t>(length));
        std::replace(words.begin(), words.end(), '\0', '\n');
        return words;
    }

    // What receive() gives for an entry of the catalogue and its arguments.
    static std::string words(const std::string& category, const std::string& id,
                             const std::string& level, const std::string& form,
                             const std::vector<std::string>& arguments) {
        std::string all = std::string(path) + "\nsend\n-A\nA238\n-C\n" + category + "\n-M\n" + id +
                          "\n-l\n" + level + "\n-t\n3\n" + form + "\nRAVO Service\n";
        for (const std::string& argument : arguments) all += argument + "\n";
        return all;
    }

  private:
    static constexpr char path[] = "/usr/local/sbin/notify";

    [[noreturn]] static void give_up(const char* what) {
        fprintf(stderr, "recording notifier: %s: %s\n", what, strerror(errno));
        abort();
    }

    int fd;
};

#endif  // TESTS_SUPPORT_RECORDING_NOTIFIER_H
