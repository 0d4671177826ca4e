// How long a notification keeps its caller, against an empty double fork: a child that forks once
// more and ends, a grandchild that ends at once, and a caller that waits for the child.
//
//   notify      the sender called in this process, which is as large as the state says: like a
//               daemon that has just started, or like one that holds a reply for a slow reader
//   request     the same in the daemon: a user's first failure at a limit of one, which notifies,
//               less one at a limit of two
//
// Each at descriptor limits of 1024, 20000 and 2^20. Where the limit may not be raised so far, the
// sender is only told so (sysconf, which the linker puts a function of this program in place of),
// and the daemon is not measured. Notifiers are waited for outside the time, so that none of them
// is at work while the next figure is taken.
//
//   notify_bench RAVOD VPNCAAS NOTIFY
//
// Run it through bench/run, which gives it a throw-away root and the right to raise the limit.
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "bench_support.h"
#include "nc_msg_db.h"
#include "ravo_api.h"

namespace {

using bench::give_up;

constexpr rlim_t limits[] = {1024, 20000, 1048576};
long told_limit = 0;  // what sysconf says of it; 0: the truth

}  // namespace

extern "C" {
long __real_sysconf(int name);
long __wrap_sysconf(int name);

long __wrap_sysconf(int name) {
    return name == _SC_OPEN_MAX && told_limit != 0 ? told_limit : __real_sysconf(name);
}
}

namespace {

// --- In this process -----------------------------------------------------------------------------

// Orphans come to this process: none of them is left when this returns.
void wait_for_orphans() {
    while (waitpid(-1, nullptr, 0) > 0 || errno == EINTR) {
    }
}

void notify() {
    ravo::nclog::notify_send(&ravo::__NC_MSG_DB__[ravo::nc_user_blocked], "alice", nullptr);
}

void double_fork() {
    const pid_t child = fork();
    if (child < 0) give_up("cannot fork");
    if (child == 0) {
        (void)fork();
        _exit(0);
    }
    waitpid(child, nullptr, 0);
}

// A sample of so many calls, behind each of which all is quiet before the next.
bench::sample kept(int times, void (*call)()) {
    return [times, call] {
        double spent = 0;
        for (int n = 0; n < times; ++n) {
            spent += bench::microseconds(1, call);
            wait_for_orphans();
        }
        return spent / times;
    };
}

bool set_limit(rlim_t open_max) {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = open_max;
    return setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

std::string state_of(const std::string& limit, pid_t process) {
    return limit + " descriptors, " + std::to_string(bench::memory_of(process, "VmRSS") / 1024) +
           " MiB";
}

// With so many bytes more than this process has by itself.
void compare_calls(size_t held, int rounds, int times) {
    void* block = nullptr;
    if (held != 0) {
        block = mmap(nullptr, held, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (block == MAP_FAILED) give_up("no memory to hold");
        memset(block, 1, held);
    }
    for (const rlim_t open_max : limits) {
        told_limit = set_limit(open_max) ? 0 : static_cast<long>(open_max);
        const std::string limit = (told_limit != 0 ? "told " : "") + std::to_string(open_max);
        bench::compare("notify", state_of(limit, getpid()), rounds, kept(times, notify),
                       {{"an empty double fork", kept(times, double_fork), 1.5}});
    }
    if (held != 0) munmap(block, held);
}

// --- In the daemon -------------------------------------------------------------------------------

void set_failure_limit(int limit) {
    std::ofstream file("/etc/config/vpn_block.conf");
    file << R"({"global": {"enable": true, "limit": )" << limit << R"(, "time": 5}})";
    if (!file.flush()) give_up("cannot write the settings");
}

// Microseconds of a new user's first failure. Its notifier, if there is one, has ended when this
// returns: an orphan of the daemon's, and so a child of this process.
double first_failure(int limit) {
    static int count = 0;
    set_failure_limit(limit);
    std::string name = "stranger" + std::to_string(++count);
    const double spent = bench::microseconds(1, [&] {
        if (add_privilege_user_block(name.data()) != 0) give_up("the daemon did not answer");
    });
    if (limit == 1 && waitpid(-1, nullptr, 0) < 0) give_up("no notifier");
    return spent;
}

double notifying_less_quiet(int times) {
    std::vector<double> spent;
    for (int n = 0; n < times; ++n) {
        const double quiet = first_failure(2);
        spent.push_back(first_failure(1) - quiet);
    }
    return bench::median(spent);
}

void compare_requests(const char* ravod, int rounds, int times) {
    for (const rlim_t open_max : limits) {
        if (!set_limit(open_max)) {
            printf("NOT MEASURED: the daemon at a limit of %ju, which is not allowed here\n",
                   static_cast<uintmax_t>(open_max));
            continue;
        }
        const pid_t daemon = bench::start_service(ravod);
        bench::compare("request", state_of(std::to_string(open_max), daemon), rounds,
                       [times] { return notifying_less_quiet(times); },
                       {{"an empty double fork here", bench::repeated(times, [] {
                             double_fork();
                             waitpid(-1, nullptr, 0);
                         })}});
        bench::stop_service(daemon);
    }
}

// Of the machine as a daemon has it: any CPU, and no real-time policy, under which a notifier that
// has come to its program runs until it waits for something before its caller goes on.
void take_a_daemons_place() {
    const sched_param none = {};
    if (sched_setscheduler(0, SCHED_OTHER, &none) != 0)
        give_up("cannot leave the real-time policy");
    (void)setpriority(PRIO_PROCESS, 0,
                      -20);  // still ahead of other programs, where that is allowed
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) give_up("usage: notify_bench RAVOD VPNCAAS NOTIFY");
    std::filesystem::create_directories("/usr/local/sbin");
    std::filesystem::create_symlink(argv[3], "/usr/local/sbin/notify");
    if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) give_up("cannot take in orphans");
    take_a_daemons_place();
    compare_calls(0, 31, 10);
    compare_calls(size_t{64} << 20, 15, 2);
    compare_calls(size_t{512} << 20, 5, 1);
    set_failure_limit(2);
    const pid_t vpncaas = bench::start_service(argv[2]);
    compare_requests(argv[1], 21, 9);
    bench::stop_service(vpncaas);
    return 0;
}
