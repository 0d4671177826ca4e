// The running daemon in the foreground: options, configuration file, log file, signals, endpoint.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <string>
#include <vector>

#include "support/files.h"
#include "support/ravod_checks.h"

namespace {

namespace fs = std::filesystem;
using texts = std::vector<std::string>;

constexpr char output_file[] = "/tmp/output";

// Runs ravod to its end; what it writes to both streams is in output_file.
int run_ravod(texts options) {
    options.insert(options.begin(), ravod_path());
    process_options how;
    how.output = output_file;
    return run_process(options, how);
}

std::string output() { return read_file(output_file); }

std::string conf_entry(const std::string& message) {
    return log_entry("ERROR", "ravod.cpp", "read_conf_file", message);
}

std::string initial_entry(const std::string& path) {
    return conf_entry("Configuration of " + ravod_path() + " read from file " + path);
}

std::string reload_entry(const std::string& path) {
    return conf_entry("Reloaded configuration file " + path + " of " + ravod_path());
}

// --- Options ------------------------------------------------------------------------------------

std::string usage(const std::string& program = ravod_path()) {
    return "\n Usage: " + program +
           " [OPTIONS]\n"
           "\n"
           "  Options:\n"
           "   -h --help                 Print this help\n"
           "   -c --conf_file filename   Read configuration from the file\n"
           "   -t --test_conf filename   Test configuration file\n"
           "   -l --log_file  filename   Write logs to the file\n"
           "   -d --daemon               Daemonize this application\n"
           "   -p --pid_file  filename   PID file used by daemonized app\n"
           "\n";
}

TEST(ravod_options, help_prints_the_usage_and_exits_0) {
    for (const char* option : {"-h", "--help", "--he"}) {
        EXPECT_EQ(run_ravod({option}), 0) << option;
        EXPECT_EQ(output(), usage()) << option;
    }
    EXPECT_FALSE(fs::exists(db_path));
    EXPECT_FALSE(fs::exists(log_path));
}

TEST(ravod_options, usage_names_the_program_as_it_was_called) {
    fs::create_symlink(ravod_path(), "/tmp/keeper");
    process_options how;
    how.output = output_file;
    EXPECT_EQ(run_process({"/tmp/keeper", "-h"}, how), 0);
    EXPECT_EQ(output(), usage("/tmp/keeper"));
}

TEST(ravod_options, unknown_option_prints_the_usage_and_exits_1) {
    for (const char* option : {"-x", "--bogus", "-?"}) {
        EXPECT_EQ(run_ravod({option}), 1) << option;
        EXPECT_TRUE(output().ends_with(usage())) << output();
        EXPECT_EQ(count_of(output(), "Usage:"), 1U) << output();
    }
}

TEST(ravod_options, missing_argument_prints_the_usage_and_exits_1) {
    for (const char* option :
         {"-c", "-t", "-l", "-p", "--conf_file", "--test_conf", "--log_file", "--pid_file"}) {
        EXPECT_EQ(run_ravod({option}), 1) << option;
        EXPECT_TRUE(output().ends_with(usage())) << option << output();
    }
}

TEST(ravod_options, unwanted_argument_is_an_error) {
    for (const char* option : {"--daemon=1", "--help=me"}) {
        EXPECT_EQ(run_ravod({option}), 1) << option;
        EXPECT_TRUE(output().ends_with(usage())) << output();
    }
}

TEST(ravod_options, first_of_help_and_error_decides) {
    EXPECT_EQ(run_ravod({"-h", "-x"}), 0);
    EXPECT_EQ(run_ravod({"-x", "-h"}), 1);
    EXPECT_EQ(run_ravod({"-d", "-h"}), 0);
    EXPECT_EQ(output(), usage());
}

TEST(ravod_options, long_names_do_what_the_letters_do) {
    write_file("/tmp/conf", "3");
    write_file("/tmp/pid", "kept");
    ravod_process ravod(
        {"--conf_file", "/tmp/conf", "--log_file=/tmp/own.log", "--pid_file", "/tmp/pid"});
    EXPECT_EQ(plain(read_file("/tmp/own.log"), ravod.pid()), initial_entry("/tmp/conf"));
    EXPECT_EQ(ravod.stop(), 0);
    EXPECT_FALSE(fs::exists("/tmp/pid"));
}

TEST(ravod_options, last_of_repeated_options_counts) {
    for (const char* path : {"/tmp/a", "/tmp/b", "/tmp/p1", "/tmp/p2"}) write_file(path, "1");
    ravod_process ravod({"-c", "/tmp/a", "-l", "/tmp/l1", "-p", "/tmp/p1", "-c", "/tmp/b", "-l",
                         "/tmp/l2", "-p", "/tmp/p2"});
    EXPECT_EQ(plain(read_file("/tmp/l2"), ravod.pid()), initial_entry("/tmp/b"));
    EXPECT_EQ(ravod.stop(), 0);
    EXPECT_FALSE(fs::exists("/tmp/l1"));
    EXPECT_TRUE(fs::exists("/tmp/p1"));
    EXPECT_FALSE(fs::exists("/tmp/p2"));
}

TEST(ravod_options, words_that_are_no_options_are_ignored) {
    ravod_process ravod({"some", "words"});
    EXPECT_TRUE(answers());
}

// --- Testing a configuration file ---------------------------------------------------------------

// Runs a test of the file and returns its exit status; a failure's message follows the prefix.
int test_conf(const std::string& path, std::string& message) {
    fs::remove(log_path);
    const int status = run_ravod({"-t", path});
    const std::string log = read_file(log_path);
    const size_t at = log.find("] test_conf_file:");
    message = at == std::string::npos ? log : log.substr(at + strlen("] test_conf_file:"));
    return status;
}

TEST(ravod_test_conf, first_token_decides) {
    struct test_case {
        const char* content;
        bool is_good;
    };
    constexpr test_case cases[] = {
        {"12", true},    {"12\n", true},       {" \t\n 7 rest", true},
        {"-3", true},    {"+4", true},         {"0", true},
        {"12abc", true}, {"2147483647", true}, {"1 abc\nnot read\n", true},
        {"", false},     {"abc", false},       {" \n", false},
        {"-", false},    {"x1", false},        {"# 1", false},
    };
    for (const test_case& c : cases) {
        write_file("/tmp/conf", c.content);
        std::string message;
        EXPECT_EQ(test_conf("/tmp/conf", message), c.is_good ? 0 : 1) << c.content;
        EXPECT_EQ(message, c.is_good ? "" : "Wrong config file /tmp/conf\n") << c.content;
        EXPECT_EQ(output(), "") << c.content;
    }
}

TEST(ravod_test_conf, missing_file_cannot_be_read) {
    std::string message;
    EXPECT_EQ(test_conf("/tmp/none", message), 1);
    EXPECT_EQ(message, "Can't read config file /tmp/none\n");
}

TEST(ravod_test_conf, directory_is_a_wrong_file) {
    std::string message;
    EXPECT_EQ(test_conf("/tmp", message), 1);
    EXPECT_EQ(message, "Wrong config file /tmp\n");
}

TEST(ravod_test_conf, line_is_an_error_of_the_daemons_unit) {
    const pid_t pid = start_process({ravod_path(), "--test_conf=/tmp/none"});
    EXPECT_EQ(wait_for_exit(pid), 1);
    EXPECT_EQ(plain_log(pid), log_entry("ERROR", "ravod.cpp", "test_conf_file",
                                        "Can't read config file /tmp/none\n"));
}

TEST(ravod_test_conf, ends_the_parsing_at_once) {
    write_file("/tmp/good", "1");
    EXPECT_EQ(run_ravod({"-t", "/tmp/good", "-x"}), 0);
    EXPECT_EQ(run_ravod({"-t", "/tmp/none", "-h"}), 1);
    EXPECT_EQ(output(), "");
    EXPECT_EQ(run_ravod({"-t", "/tmp/good", "-t", "/tmp/none"}), 0);
}

TEST(ravod_test_conf, ignores_the_log_file_option) {
    EXPECT_EQ(run_ravod({"-l", "/tmp/own.log", "-t", "/tmp/none"}), 1);
    EXPECT_FALSE(fs::exists("/tmp/own.log"));
    EXPECT_EQ(count_of(read_file(log_path), "Can't read"), 1U);
}

TEST(ravod_test_conf, runs_in_place_also_with_the_daemon_option) {
    write_file("/tmp/abc.conf", "abc");
    EXPECT_EQ(run_ravod({"-d", "-t", "abc.conf"}), 1);  // in this directory, with its own status
    EXPECT_FALSE(fs::exists(db_path));
}

// --- Configuration file -------------------------------------------------------------------------

TEST(ravod_conf, none_is_named_so_nothing_is_logged) {
    ravod_process ravod;
    ravod.signal(SIGHUP);
    EXPECT_TRUE(answers());
    EXPECT_EQ(plain_log(ravod.pid()), "");
}

TEST(ravod_conf, texts_have_no_newline_and_run_into_the_next_line) {
    write_file("/tmp/conf", "5\n");
    ravod_process ravod({"-c", "/tmp/conf"});
    ravod.signal(SIGHUP);
    EXPECT_TRUE(answers());
    const pid_t pid = ravod.pid();
    EXPECT_EQ(ravod.stop(), 0);
    EXPECT_EQ(plain_log(pid),
              initial_entry("/tmp/conf") + reload_entry("/tmp/conf") + closing_lines());
}

TEST(ravod_conf, lines_name_the_place_in_the_source) {
    write_file("/tmp/conf", "5\n");
    const ravod_process ravod({"-c", "/tmp/conf"});
    const std::string log = read_file(log_path);
    const size_t at = log.find("ravod.cpp [");
    ASSERT_NE(at, std::string::npos);
    const size_t number = std::stoul(log.substr(at + strlen("ravod.cpp [")));
    const texts source = split_lines(read_file(SOURCES "/ravo/ravod.cpp"));
    ASSERT_LE(number, source.size());
    EXPECT_EQ(count_of(source[number - 1], "Configuration of %s read from file %s"), 1U);
}

TEST(ravod_conf, missing_file_is_logged_and_does_not_stop_the_start) {
    ravod_process ravod({"-c", "/tmp/none"});
    EXPECT_EQ(plain_log(ravod.pid()),
              conf_entry("Can not open config file: /tmp/none, error: No such file or directory"));
    EXPECT_TRUE(answers());
}

TEST(ravod_conf, reason_is_the_systems) {
    write_file("/tmp/conf", "5\n");
    chmod("/tmp/conf", 0);
    const ravod_process ravod({"-c", "/tmp/conf"});
    EXPECT_EQ(plain_log(ravod.pid()),
              conf_entry("Can not open config file: /tmp/conf, error: Permission denied"));
}

TEST(ravod_conf, missing_file_at_reload_is_the_same_line) {
    write_file("/tmp/conf", "5\n");
    const ravod_process ravod({"-c", "/tmp/conf"});
    fs::remove("/tmp/conf");
    ravod.signal(SIGHUP);
    EXPECT_TRUE(answers());
    EXPECT_EQ(
        plain_log(ravod.pid()),
        initial_entry("/tmp/conf") +
            conf_entry("Can not open config file: /tmp/conf, error: No such file or directory"));
}

TEST(ravod_conf, file_without_an_integer_is_passed_over_in_silence) {
    for (const char* content : {"", "abc"}) {
        write_file("/tmp/conf", content);
        const ravod_process ravod({"-c", "/tmp/conf"});
        ravod.signal(SIGHUP);
        EXPECT_TRUE(answers());
    }
    EXPECT_EQ(count_of(read_file(log_path), "ravod.cpp"), 0U);
}

TEST(ravod_conf, each_reload_reads_the_file_again) {
    write_file("/tmp/conf", "abc");
    const ravod_process ravod({"-c", "/tmp/conf"});
    write_file("/tmp/conf", "6");
    for (int n = 0; n < 3; ++n) {
        ravod.signal(SIGHUP);
        EXPECT_TRUE(answers());
    }
    const std::string line = reload_entry("/tmp/conf");
    EXPECT_EQ(plain_log(ravod.pid()), line + line + line);
}

TEST(ravod_conf, file_is_closed_whatever_it_holds) {
    write_file("/tmp/conf", "1");
    const ravod_process ravod({"-c", "/tmp/conf"});
    for (const char* content : {"1", "abc", ""}) {
        write_file("/tmp/conf", content);
        ravod.signal(SIGHUP);
        EXPECT_TRUE(answers());
    }
    for (const auto& [fd, target] : descriptors_of(ravod.pid())) EXPECT_NE(target, "/tmp/conf");
}

TEST(ravod_conf, relative_path_starts_at_the_working_directory) {
    write_file("/tmp/local.conf", "1");
    const ravod_process ravod({"-c", "local.conf"});
    EXPECT_EQ(plain_log(ravod.pid()), initial_entry("local.conf"));
}

// --- Log file -----------------------------------------------------------------------------------

TEST(ravod_log_file, option_moves_only_the_daemon_units_lines) {
    write_file("/tmp/conf", "1");
    ravod_process ravod({"-c", "/tmp/conf", "-l", "/tmp/own.log"});
    ravod.signal(SIGHUP);
    EXPECT_TRUE(answers());
    const pid_t pid = ravod.pid();
    EXPECT_EQ(ravod.stop(), 0);
    EXPECT_EQ(plain(read_file("/tmp/own.log"), pid),
              initial_entry("/tmp/conf") + reload_entry("/tmp/conf"));
    EXPECT_EQ(plain_log(pid), closing_lines());
}

TEST(ravod_log_file, empty_name_drops_the_daemon_units_lines) {
    write_file("/tmp/conf", "1");
    ravod_process ravod({"-c", "/tmp/conf", "-l", ""});
    const pid_t pid = ravod.pid();
    EXPECT_EQ(ravod.stop(), 0);
    EXPECT_EQ(plain_log(pid), closing_lines());
}

TEST(ravod_log_file, path_is_cut_to_255_bytes) {
    write_file("/tmp/conf", "1");
    const std::string kept = "/tmp/" + std::string(250, 'k');
    for (const char* rest : {"", "x", "tail that does not fit"}) {
        const ravod_process ravod({"-c", "/tmp/conf", "-l", kept + rest});
        EXPECT_EQ(plain(read_file(kept), ravod.pid()), initial_entry("/tmp/conf")) << rest;
        fs::remove(kept);
    }
    const std::string long_path = "/tmp/" + std::string(10000, 'y');
    const ravod_process ravod({"-c", "/tmp/conf", "-l", long_path});
    EXPECT_EQ(plain(read_file(long_path.substr(0, 255)), ravod.pid()), initial_entry("/tmp/conf"));
}

TEST(ravod_log_file, shorter_path_is_used_whole) {
    write_file("/tmp/conf", "1");
    const std::string path = "/tmp/" + std::string(249, 'k');
    const ravod_process ravod({"-c", "/tmp/conf", "-l", path});
    EXPECT_EQ(plain(read_file(path), ravod.pid()), initial_entry("/tmp/conf"));
}

TEST(ravod_log_file, file_moved_away_is_made_anew) {
    write_file("/tmp/conf", "1");
    const ravod_process ravod({"-c", "/tmp/conf"});
    fs::rename(log_path, "/var/log/network/RAVO.log.1");
    ravod.signal(SIGHUP);
    EXPECT_TRUE(answers());
    EXPECT_EQ(plain_log(ravod.pid()), reload_entry("/tmp/conf"));
}

// --- Start, stop, signals -----------------------------------------------------------------------

TEST(ravod_signals, stop_signals_finish_four_tables_and_exit_0) {
    for (const int sig : {SIGTERM, SIGINT}) {
        fs::remove(log_path);
        ready_socket ready;
        process_options how;
        how.environment = {ready.environment()};
        const pid_t pid = start_process({ravod_path()}, how);
        ready.wait();
        EXPECT_EQ(plain_log(pid), "");
        kill(pid, sig);
        EXPECT_EQ(wait_for_exit(pid), 0);
        EXPECT_EQ(plain_log(pid), closing_lines());
    }
}

TEST(ravod_signals, hangup_keeps_it_serving) {
    const ravod_process ravod;
    for (int n = 0; n < 3; ++n) {
        ravod.signal(SIGHUP);
        EXPECT_TRUE(answers());
    }
}

TEST(ravod_signals, foreground_keeps_the_place_and_the_streams_it_was_given) {
    process_options how;
    how.output = output_file;
    umask(027);
    const ravod_process ravod({}, how);
    EXPECT_EQ(fs::read_symlink(proc(ravod.pid(), "cwd")), fs::current_path());
    EXPECT_EQ(proc_status(ravod.pid(), "Umask"), "0027");
    EXPECT_EQ(getsid(ravod.pid()), getsid(0));
    EXPECT_EQ(descriptors_of(ravod.pid())[1], output_file);
    EXPECT_FALSE(is_in_set(ravod.pid(), "SigIgn", SIGCHLD));
    EXPECT_EQ(output(), "");
}

TEST(ravod_signals, pid_file_in_the_foreground_is_left_alone_and_removed_at_stop) {
    write_file("/tmp/ravod.pid", "not mine\n");
    ravod_process ravod({"-p", "/tmp/ravod.pid"});
    EXPECT_EQ(read_file("/tmp/ravod.pid"), "not mine\n");
    for (const auto& [fd, target] : descriptors_of(ravod.pid()))
        EXPECT_NE(target, "/tmp/ravod.pid");
    EXPECT_EQ(ravod.stop(), 0);
    EXPECT_FALSE(fs::exists("/tmp/ravod.pid"));
}

TEST(ravod_signals, pid_file_in_the_foreground_is_not_created) {
    ravod_process ravod({"-p", "/tmp/ravod.pid"});
    EXPECT_FALSE(fs::exists("/tmp/ravod.pid"));
    EXPECT_EQ(ravod.stop(), 0);
}

// --- The endpoint -------------------------------------------------------------------------------

// Binds the daemon's address in this process.
int take_endpoint() {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    constexpr char name[] = "\0/var/run/ravod.sock";
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, name, sizeof name - 1);
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + sizeof name - 1);
    EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), length), 0);
    return fd;
}

TEST(ravod_endpoint, address_is_the_abstract_name_exactly) {
    const ravod_process ravod;
    EXPECT_EQ(count_of(read_file("/proc/net/unix"), " @/var/run/ravod.sock\n"), 1U);
}

TEST(ravod_endpoint, taken_address_is_told_and_ends_the_daemon_with_0) {
    const int fd = take_endpoint();
    process_options how;
    how.output = output_file;
    const pid_t pid = start_process({ravod_path()}, how);
    EXPECT_EQ(wait_for_exit(pid), 0);
    EXPECT_EQ(count_of(output(), "\"@/var/run/ravod.sock\": Address already in use\n"), 1U)
        << output();
    EXPECT_EQ(plain_log(pid), closing_lines());
    close(fd);
}

TEST(ravod_endpoint, second_daemon_ends_and_the_first_goes_on) {
    const ravod_process first;
    EXPECT_EQ(run_ravod({}), 0);
    EXPECT_EQ(count_of(output(), "Address already in use\n"), 1U) << output();
    EXPECT_TRUE(answers());
}

TEST(ravod_endpoint, reason_reaches_the_system_log_in_the_daemons_name) {
    const int fd = take_endpoint();
    const int log = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, "/dev/log");
    ASSERT_EQ(bind(log, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    const pid_t pid = start_process({ravod_path()});
    EXPECT_EQ(wait_for_exit(pid), 0);
    char message[1024] = {};
    ASSERT_GT(recv(log, message, sizeof message - 1, MSG_DONTWAIT), 0);
    const std::string ident = ravod_path() + "[" + std::to_string(pid) + "]: ";
    EXPECT_EQ(count_of(message, ident), 1U) << message;
    EXPECT_EQ(count_of(message, "Address already in use"), 1U) << message;
    close(log);
    close(fd);
}

TEST(ravod_endpoint, rows_survive_a_restart_but_the_server_list_does_not) {
    db_conn_server_log row = {};
    db_server_list_data entry = {};
    {
        const ravod_process ravod;
        EXPECT_EQ(add_conn_server_log(&row), 0);
        EXPECT_EQ(add_server_list(&entry), 0);
        EXPECT_EQ(count_rows(list_server_list), 1);
    }
    EXPECT_EQ(count_rows(list_conn_server_log), -1);
    const ravod_process ravod;
    EXPECT_EQ(count_rows(list_conn_server_log), 1);
    EXPECT_EQ(count_rows(list_server_list), 0);
}

}  // namespace
