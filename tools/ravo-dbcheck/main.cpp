// ravo-dbcheck: looks at the daemon's database before the daemon starts, and puts a sound one in
// the place of a damaged one.
//
//   ravo-dbcheck [--help]
#include <csignal>
#include <cstdio>
#include <cstring>

#include "commit_vfs.h"
#include "repair.h"
#include "table_store.h"

namespace {

constexpr char usage[] =
    "usage: ravo-dbcheck [--help]\n"
    "\n"
    "Checks /etc/config/ravo/ravo.db. A damaged one is set aside, and its rows are saved into a\n"
    "new one. Run it only while ravod does not run.\n"
    "\n"
    "Exit status: 0 when ravod may start; 1 wrong arguments; 2 the database may not be read and\n"
    "written, or is no file; 3 it is in use; 4 it is damaged and could not be replaced.\n";

int tell(const outcome& result) {
    (void)printf("ravo-dbcheck: %s\n", result.line.c_str());
    return static_cast<int>(result.status);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 1) {
        // A file that may not grow any more is then as a full disk.
        (void)signal(SIGXFSZ, SIG_IGN);
        // Somebody opens the file in the moment in which it is asked whether anybody has.
        (void)signal(SIGIO, SIG_IGN);
        // A commit that a killed daemon has left unfinished is finished first.
        (void)register_commit_vfs(commit_strength::kill_safe);
        return tell(check_and_repair(database_path));
    }
    const bool asks_help = argc == 2 && strcmp(argv[1], "--help") == 0;
    (void)fputs(usage, asks_help ? stdout : stderr);
    return static_cast<int>(asks_help ? exit_status::may_start : exit_status::usage);
}
