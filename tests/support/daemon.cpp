// A real ravod process for a test.
#include "support/daemon.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int patience_ms = 10000;

[[noreturn]] void give_up(const std::string& what) {
    fprintf(stderr, "test support: %s: %s\n", what.c_str(), strerror(errno));
    abort();
}

void wait_readable(int fd, const std::string& what) {
    pollfd event = {fd, POLLIN, 0};
    int ready = 0;
    while ((ready = poll(&event, 1, patience_ms)) < 0 && errno == EINTR) {
    }
    if (ready != 1) give_up("waited in vain for " + what);
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> list;
    list.reserve(texts.size() + 1);
    for (std::string& text : texts) list.push_back(text.data());
    list.push_back(nullptr);
    return list;
}

[[noreturn]] void become(std::vector<std::string> arguments, const process_options& options) {
    for (const std::string& entry : options.environment) putenv(strdup(entry.c_str()));
    if (!options.output.empty()) {
        const int out = open(options.output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(out, 1);
        dup2(out, 2);
        if (out > 2) close(out);
    }
    if (options.open_max != 0) {
        const auto limit = static_cast<rlim_t>(options.open_max);
        const rlimit both = {limit, limit};
        setrlimit(RLIMIT_NOFILE, &both);
    }
    execv(arguments[0].c_str(), pointers(arguments).data());
    _exit(127);
}

}  // namespace

pid_t start_process(const std::vector<std::string>& arguments, const process_options& options) {
    const pid_t child = fork();
    if (child < 0) give_up("fork");
    if (child == 0) become(arguments, options);
    return child;
}

void wait_for_end(pid_t pid) {
    const auto fd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    if (fd < 0 && errno == ESRCH) return;
    if (fd < 0) give_up("pidfd_open");
    wait_readable(fd, "the end of process " + std::to_string(pid));
    close(fd);
}

int wait_for_exit(pid_t child) {
    wait_for_end(child);
    int status = 0;
    if (waitpid(child, &status, 0) != child) give_up("waitpid");
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

int run_process(const std::vector<std::string>& arguments, const process_options& options) {
    return wait_for_exit(start_process(arguments, options));
}

std::string ravod_path() {
    const char* other = getenv("RAVOD");
    return other != nullptr ? other : RAVOD_PATH;
}

ready_socket::ready_socket() : fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    static int count = 0;
    path = "/tmp/ready." + std::to_string(getpid()) + "." + std::to_string(++count);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_PASSCRED, &on, sizeof on);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        give_up("bind " + path);
    }
}

ready_socket::~ready_socket() {
    close(fd);
    unlink(path.c_str());
}

std::string ready_socket::environment() const { return "NOTIFY_SOCKET=" + path; }

pid_t ready_socket::wait() {
    wait_readable(fd, "READY=1");
    char text[64] = {};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))] = {};
    iovec part = {text, sizeof text - 1};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    if (recvmsg(fd, &message, 0) < 0) give_up("recvmsg");
    EXPECT_EQ(std::string(text).substr(0, 7), "READY=1");
    ucred sender = {};
    const cmsghdr* credentials = CMSG_FIRSTHDR(&message);
    if (credentials == nullptr) give_up("no credentials with READY=1");
    memcpy(&sender, CMSG_DATA(credentials), sizeof sender);
    return sender.pid;
}

bool ready_socket::wait_or_end(pid_t child) const {
    const auto end = static_cast<int>(syscall(SYS_pidfd_open, child, 0));
    if (end < 0) give_up("pidfd_open");
    pollfd events[] = {{fd, POLLIN, 0}, {end, POLLIN, 0}};
    int ready = 0;
    while ((ready = poll(events, 2, patience_ms)) < 0 && errno == EINTR) {
    }
    if (ready < 1) give_up("neither READY=1 nor the end of process " + std::to_string(child));
    close(end);
    return (events[0].revents & POLLIN) != 0;
}

ravod_process::ravod_process(const std::vector<std::string>& options, const process_options& how) {
    ready_socket ready;
    std::vector<std::string> arguments = {ravod_path()};
    arguments.insert(arguments.end(), options.begin(), options.end());
    process_options with_ready = how;
    with_ready.environment.push_back(ready.environment());
    child = start_process(arguments, with_ready);
    serving = ready.wait();
}

ravod_process::~ravod_process() {
    if (child > 0) {
        EXPECT_EQ(stop(), 0);
    }
}

void ravod_process::signal(int sig) const { kill(child, sig); }

int ravod_process::stop() {
    kill(child, SIGTERM);
    const int status = wait_for_exit(child);
    child = -1;
    return status;
}
