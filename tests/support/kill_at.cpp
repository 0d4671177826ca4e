// Runs a program and kills it before one of its system calls that change files.
#include "support/kill_at.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <iterator>

namespace {

constexpr uint64_t changing_calls[] = {
    SYS_pwrite64, SYS_ftruncate, SYS_fsync,    SYS_fdatasync, SYS_linkat,
    SYS_unlinkat, SYS_fchmodat,  SYS_fchownat, SYS_renameat,  SYS_renameat2,
#ifdef SYS_rename  // older names, which not every machine has
    SYS_rename,   SYS_link,      SYS_unlink,   SYS_chmod,     SYS_chown,
#endif
};

bool changes_files(const __ptrace_syscall_info& call) {
    if (call.op != PTRACE_SYSCALL_INFO_ENTRY) return false;
    if (call.entry.nr == SYS_openat) return (call.entry.args[2] & O_CREAT) != 0;
    return std::ranges::find(changing_calls, call.entry.nr) != std::end(changing_calls);
}

// Becomes the program, which stops before its first instruction.
[[noreturn]] void become_traced(const std::vector<std::string>& arguments) {
    std::vector<char*> pointers;
    pointers.reserve(arguments.size() + 1);
    for (const std::string& text : arguments) pointers.push_back(const_cast<char*>(text.c_str()));
    pointers.push_back(nullptr);
    const int nowhere = open("/dev/null", O_WRONLY);
    dup2(nowhere, 1);
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    execv(pointers[0], pointers.data());
    _exit(127);
}

// Lets it run to its next stop. False: it has ended.
bool go_on(pid_t child) {
    int status = 0;
    EXPECT_EQ(ptrace(PTRACE_SYSCALL, child, nullptr, nullptr), 0);
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSTOPPED(status) || (WIFEXITED(status) && WEXITSTATUS(status) == 0));
    return WIFSTOPPED(status);
}

}  // namespace

bool kill_at_change(const std::vector<std::string>& arguments, int n) {
    const pid_t child = fork();
    if (child == 0) become_traced(arguments);
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
    EXPECT_EQ(ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD), 0);
    int made = 0;
    while (go_on(child)) {
        __ptrace_syscall_info call = {};
        ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof call, &call);
        if (!changes_files(call) || ++made < n) continue;
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        return true;
    }
    return false;
}
