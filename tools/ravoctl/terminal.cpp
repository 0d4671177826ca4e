// Standard output when a person looks at it: through a pager, and in colour.
#include "terminal.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace {

struct output_state {
    bool is_terminal = isatty(STDOUT_FILENO) == 1;
    bool is_pager_wanted = true;
    pid_t pager = -1;
};

output_state& state() {
    static output_state the_state;
    return the_state;
}

std::string_view variable(const char* name) {
    const char* text = getenv(name);
    return text == nullptr ? "" : text;
}

bool has_variable(const char* name) { return getenv(name) != nullptr; }

bool is_pager_off() {
    const std::string_view pager = variable("PAGER");
    return has_variable("PAGER") && (pager.empty() || pager == "cat");
}

// less as it is known from other programs: it ends by itself when all fits on the screen, lets
// colours through, and does not fold lines. With another user's rights it starts no programs.
void set_pager_environment() {
    (void)setenv("LESS", "FRSX", 0);
    (void)setenv("LESSCHARSET", "utf-8", 0);
    if (has_variable("SUDO_UID")) (void)setenv("LESSSECURE", "1", 1);
}

[[noreturn]] void become_pager() {
    set_pager_environment();
    if (has_variable("PAGER")) {
        (void)execl("/bin/sh", "sh", "-c", getenv("PAGER"), nullptr);
    }
    (void)execlp("less", "less", nullptr);
    (void)execlp("more", "more", nullptr);
    (void)execlp("cat", "cat", nullptr);
    _exit(EXIT_FAILURE);
}

}  // namespace

bool is_shown_on_terminal() { return state().is_terminal; }

bool wants_colours() {
    return is_shown_on_terminal() && variable("NO_COLOR").empty() && has_variable("TERM") &&
           variable("TERM") != "dumb";
}

void declare_pager_option(cli_command app) {
    app.add_flag("--no-pager", disable_pager, "Do not show a terminal's output through a pager");
}

void disable_pager() { state().is_pager_wanted = false; }

void start_pager() {
    if (!state().is_terminal || !state().is_pager_wanted || state().pager >= 0 || is_pager_off()) {
        return;
    }
    std::array<int, 2> ends = {};
    (void)fflush(stdout);
    if (pipe2(ends.data(), O_CLOEXEC) != 0) return;
    state().pager = fork();
    if (state().pager == 0) {
        (void)dup2(ends[0], STDIN_FILENO);
        become_pager();
    }
    if (state().pager > 0) {
        (void)dup2(ends[1], STDOUT_FILENO);
        (void)signal(SIGPIPE, SIG_IGN);
        (void)signal(SIGINT, SIG_IGN);  // the pager's, which shares the terminal
    }
    (void)close(ends[0]);
    (void)close(ends[1]);
}

bool finish_output() {
    errno = 0;
    const bool is_written = fflush(stdout) == 0 && ferror(stdout) == 0;
    const bool is_left_early = state().pager > 0;
    if (state().pager > 0) {
        (void)close(STDOUT_FILENO);
        while (waitpid(state().pager, nullptr, 0) < 0 && errno == EINTR) continue;
    }
    return is_written || is_left_early;
}
