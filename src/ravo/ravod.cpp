// ravod: the record-keeping daemon of a VPN service. This unit is its entry: options, daemon mode,
// configuration file, signals, and the order in which everything is opened and closed.
#include <fcntl.h>
#include <getopt.h>
#include <malloc.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "commit_vfs.h"
#include "ravo_log.h"
#include "ravod_db_conn_client_handler.h"
#include "ravod_db_device_info_handler.h"
#include "ravod_db_handler.h"
#include "ravod_db_list_handler.h"
#include "ravod_db_privilege_user_block_handler.h"
#include "ravod_handler.h"
#include "spare_descriptors.h"
#include "zbservice.h"

namespace {

constexpr char endpoint[] = "@/var/run/ravod.sock";
constexpr long close_loop_limit = 65536;  // the highest descriptor that is closed by itself

// --- Process-wide state -------------------------------------------------------------------------

const char* app_name = nullptr;
char* conf_file_name = nullptr;  // null: no configuration file
char* log_file_name = nullptr;
char* pid_file_name = nullptr;
int pid_fd = -1;             // the locked pid file, in daemon mode
bool pid_file_held = false;  // pid_fd keeps its number after the release, so this tells
bool daemon_mode = false;
zb_service* handle = nullptr;  // the endpoint, while it exists
int delay = 1;                 // the one configuration value; read and kept, nothing uses it

void replace_copy(char*& copy, const char* text) {
    free(copy);
    copy = strdup(text);
}

void release_copy(char*& copy) {
    free(copy);
    copy = nullptr;
}

// --- Configuration file -------------------------------------------------------------------------

// Reads the file's first token. Returns fscanf's result: 1, or 0 or EOF when it is no integer.
int read_delay(FILE* file) {
    int value = 0;
    const int result = fscanf(file, "%d", &value);  // NOLINT(cert-err34-c): "%d" is the format
    if (result == 1) delay = value;
    return result;
}

// Returns 0 when the file opens and begins with an integer, otherwise 1.
int test_conf_file(const char* path) {
    FILE* file = fopen(path, "re");
    if (file == nullptr) {
        log_line(HERE, "ERROR", "Can't read config file %s\n", path);
        return 1;
    }
    const int result = read_delay(file);
    (void)fclose(file);
    if (result == 1) return 0;
    log_line(HERE, "ERROR", "Wrong config file %s\n", path);
    return 1;
}

// Reads the named configuration file, if any. Returns 0 without one, -1 when it cannot be opened,
// else the result of reading the integer. Deliberate: informative lines are ERROR, too, and none of
// the three ends its line.
int read_conf_file(int reload) {
    if (conf_file_name == nullptr) return 0;
    FILE* file = fopen(conf_file_name, "re");
    if (file == nullptr) {
        log_line(HERE, "ERROR", "Can not open config file: %s, error: %s", conf_file_name,
                 strerror(errno));
        return -1;
    }
    const int result = read_delay(file);
    (void)fclose(file);
    if (result == 1 && reload == 1) {
        log_line(HERE, "ERROR", "Reloaded configuration file %s of %s", conf_file_name, app_name);
    } else if (result == 1) {
        log_line(HERE, "ERROR", "Configuration of %s read from file %s", app_name, conf_file_name);
    }
    return result;
}

// --- Options ------------------------------------------------------------------------------------

void print_help() {
    printf("\n Usage: %s [OPTIONS]\n\n", app_name);
    puts("  Options:");
    puts("   -h --help                 Print this help");
    puts("   -c --conf_file filename   Read configuration from the file");
    puts("   -t --test_conf filename   Test configuration file");
    puts("   -l --log_file  filename   Write logs to the file");
    puts("   -d --daemon               Daemonize this application");
    puts("   -p --pid_file  filename   PID file used by daemonized app");
    puts("");
}

constexpr int go_on = -1;

// Returns go_on, or the exit status when the options say that there is nothing to run.
int parse_options(int argc, char** argv) {
    static const option long_options[] = {
        {"conf_file", required_argument, nullptr, 'c'},
        {"test_conf", required_argument, nullptr, 't'},
        {"log_file", required_argument, nullptr, 'l'},
        {"help", no_argument, nullptr, 'h'},
        {"daemon", no_argument, nullptr, 'd'},
        {"pid_file", required_argument, nullptr, 'p'},
        {nullptr, 0, nullptr, 0},
    };
    int letter = 0;
    while ((letter = getopt_long(argc, argv, "c:l:t:p:dh", long_options, nullptr)) != -1) {
        switch (letter) {
            case 'c':
                replace_copy(conf_file_name, optarg);
                break;
            case 'l':
                replace_copy(log_file_name, optarg);
                break;
            case 'p':
                replace_copy(pid_file_name, optarg);
                break;
            case 'd':
                daemon_mode = true;
                break;
            case 't':
                return test_conf_file(optarg);
            case 'h':
                print_help();
                return 0;
            case '?':
                print_help();
                return 1;
            default:
                break;
        }
    }
    return go_on;
}

// --- Daemon mode --------------------------------------------------------------------------------

// The parent ends here; the child goes on.
void leave_parent() {
    const pid_t child = fork();
    if (child < 0) exit(1);
    if (child > 0) exit(0);
}

// Closes everything but descriptor 0, which the reopening of standard input takes care of. The
// limit itself is closed, too, on purpose: a descriptor of that number may be left from before the
// limit was lowered. Where the kernel has no close_range, they are closed one by one.
void close_descriptors() {
    const long limit = sysconf(_SC_OPEN_MAX);
    const bool is_unknown = limit < 0 || limit > UINT_MAX;
    if (close_range(1, is_unknown ? UINT_MAX : static_cast<unsigned>(limit), 0) == 0) return;
    for (long n = is_unknown ? close_loop_limit : std::min(limit, close_loop_limit); n >= 1; --n) {
        close(static_cast<int>(n));
    }
}

void reopen_standard_streams() {
    stdin = freopen("/dev/null", "r", stdin);
    stdout = freopen("/dev/null", "w+", stdout);
    stderr = freopen("/dev/null", "w+", stderr);
}

// The lock says that this daemon is alive and keeps a second one out.
void hold_pid_file() {
    pid_fd = open(pid_file_name, O_RDWR | O_CREAT | O_CLOEXEC, 0640);
    if (pid_fd < 0) exit(1);
    if (lockf(pid_fd, F_TLOCK, 0) != 0) exit(1);
    pid_file_held = true;
    // Deliberate: an older, longer content is not truncated.
    dprintf(pid_fd, "%d\n", getpid());
}

void become_daemon() {
    leave_parent();
    if (setsid() < 0) exit(1);
    (void)signal(SIGCHLD, SIG_IGN);
    leave_parent();
    umask(0);
    [[maybe_unused]] const int result = chdir("/");
    close_descriptors();
    reopen_standard_streams();
    if (pid_file_name != nullptr) hold_pid_file();
}

// --- Signals ------------------------------------------------------------------------------------

void release_pid_file() {
    if (pid_file_held) {
        (void)lockf(pid_fd, F_ULOCK, 0);
        close(pid_fd);
        pid_file_held = false;
    }
    // Also when the file was never created, because the daemon runs in the foreground.
    if (pid_file_name != nullptr) unlink(pid_file_name);
}

// Called by the bus on the serving thread, never inside an interrupted call. Before the endpoint
// exists a stop only removes the pid file, and start-up goes on.
void handle_signal(int sig) {
    const spare_descriptors spare;
    switch (sig) {
        case SIGHUP:
            (void)read_conf_file(1);
            break;
        case SIGINT:
        case SIGTERM:
            release_pid_file();
            if (handle != nullptr) zb_stop(handle);
            break;
        default:
            break;
    }
}

// --- Start and stop -----------------------------------------------------------------------------

void register_signals() {
    zb_signal(SIGINT, handle_signal);
    zb_signal(SIGHUP, handle_signal);
    zb_signal(SIGTERM, handle_signal);
}

// Only this unit's lines follow the option; every other unit keeps its own path.
void apply_log_file() {
    if (log_file_name == nullptr) return;
    unit_log.__cur_type__ = 1;
    const size_t length = strnlen(log_file_name, sizeof unit_log.__log_file__ - 1);
    memcpy(unit_log.__log_file__, log_file_name, length);
    unit_log.__log_file__[length] = '\0';
}

// How much a commit survives, from the environment. What is not understood is told, to standard
// error and to the system log, and the default holds.
commit_strength read_commit_strength() {
    const char* text = getenv("RAVOD_COMMIT");
    if (text == nullptr || strcmp(text, "kill-safe") == 0) return commit_strength::kill_safe;
    if (strcmp(text, "power-safe") == 0) return commit_strength::power_safe;
    if (strcmp(text, "off") == 0) return commit_strength::off;
    static constexpr char complaint[] =
        "RAVOD_COMMIT is \"%s\", not kill-safe, power-safe or off; kill-safe holds";
    fprintf(stderr, complaint, text);
    (void)fputc('\n', stderr);
    syslog(LOG_WARNING, complaint, text);
    return commit_strength::kill_safe;
}

// One thread does everything, so SQLite need not lock, and nobody asks how much memory it uses.
void spare_sqlite_what_nobody_needs() {
    (void)sqlite3_config(SQLITE_CONFIG_SINGLETHREAD);
    (void)sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
}

// Without the layer the daemon serves all the same, and the system log has the reason.
void make_commits_whole() {
    const int rc = register_commit_vfs(read_commit_strength());
    if (rc != SQLITE_OK) syslog(LOG_ERR, "commits are not protected: %s", sqlite3_errstr(rc));
}

// A table that cannot be opened now is opened by its next statement; the log has the reason.
void create_tables() {
    (void)create_conn_server_log_db();
    (void)create_conn_client_log_db();
    (void)create_server_list_db();
    (void)create_device_info_db();
    (void)create_privilege_user_block_db();
}

// Deliberate: the device registry is not finished.
void finish_tables() {
    (void)finish_conn_server_log_db();
    (void)finish_conn_client_log_db();
    (void)finish_server_list_db();
    (void)finish_privilege_user_block_db();
}

// Serves until a stop signal. An endpoint that cannot be created ends the service at once; the bus
// has told why.
void serve() {
    handle = zb_create(endpoint, 4, 1, ravod_method_handler);
    set_descriptors_aside();
    zb_start(handle);
    zb_free(handle);
    handle = nullptr;
}

// A large block is mapped by itself, whatever was freed before, so that a listing's memory is zero
// when it comes and goes back whole: what the daemon holds makes each of its forks longer. What
// lies free behind the small blocks is left there for the next page.
void map_large_blocks() {
    (void)mallopt(M_MMAP_THRESHOLD, 256 * 1024);
    (void)mallopt(M_TRIM_THRESHOLD, 1024 * 1024);
}

void release_options() {
    release_copy(conf_file_name);
    release_copy(log_file_name);
    release_copy(pid_file_name);
}

}  // namespace

int main(int argc, char** argv) {
    app_name = argv[0];
    map_large_blocks();
    const int status = parse_options(argc, argv);
    if (status != go_on) return status;
    if (daemon_mode) become_daemon();
    openlog(app_name, LOG_PID | LOG_CONS, LOG_DAEMON);
    register_signals();
    apply_log_file();
    (void)read_conf_file(0);
    spare_sqlite_what_nobody_needs();
    make_commits_whole();
    create_tables();
    serve();
    finish_tables();
    closelog();
    release_options();
    return 0;
}
