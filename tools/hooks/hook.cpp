// What a hook does: it takes events in, and leaves the work to a process of its own.
#include "hook.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <vector>

namespace {

void let_go_of_server() {
    (void)setsid();
    const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (int stream = 0; stream <= 2; ++stream) (void)dup2(nothing, stream);
    (void)close_range(3, ~0U, 0);
    sigset_t none;
    (void)sigemptyset(&none);
    (void)sigprocmask(SIG_SETMASK, &none, nullptr);
    (void)signal(SIGPIPE, SIG_IGN);
    (void)signal(SIGCHLD, SIG_DFL);
}

}  // namespace

bool start_apart(const std::function<void()>& work) {
    const pid_t child = fork();
    if (child != 0) return child > 0;
    let_go_of_server();
    work();
    _exit(0);
}

void record_apart(journal events, std::initializer_list<environment> told,
                  const std::function<void()>& first) {
    std::vector<std::string> lost;
    for (const environment& event : told) {
        if (!events.take(event)) lost.emplace_back(event.get(hook_variable));
    }
    (void)start_apart([&] {
        first();
        for (const std::string& hook : lost) {
            syslog(LOG_ERR, "too many events wait, or %s cannot be written to: this %s is LOST",
                   events.run_folder().c_str(), hook.c_str());
        }
        (void)events.deliver(journal::when_busy::leave);
    });
}
