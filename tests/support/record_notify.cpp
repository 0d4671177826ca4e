// A notifier that sends its words back to the test that waits for them: one datagram, a NUL behind
// each word.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <string>

int main(int argc, char** argv) {
    std::string words;
    for (int n = 0; n < argc; ++n) words.append(argv[n], strlen(argv[n]) + 1);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    constexpr char name[] = "test/notifications";
    memcpy(address.sun_path + 1, name, sizeof name - 1);
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + sizeof name);
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const ssize_t sent = sendto(fd, words.data(), words.size(), 0,
                                reinterpret_cast<const sockaddr*>(&address), length);
    return sent == static_cast<ssize_t>(words.size()) ? 0 : 1;
}
