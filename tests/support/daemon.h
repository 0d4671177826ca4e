// A real ravod process for a test: started, awaited through its readiness datagram, stopped.
//
// The daemon is the one of this build. Nothing here sleeps: readiness is a datagram on a socket,
// an end is a readable pidfd. Waiting for longer than ten seconds fails the test.
#ifndef TESTS_SUPPORT_DAEMON_H
#define TESTS_SUPPORT_DAEMON_H

#include <sys/types.h>

#include <string>
#include <vector>

// Where the daemon's standard output and error go.
struct process_options {
    std::vector<std::string> environment{};  // "NAME=VALUE", added to this process's
    std::string output{};                    // a file for both streams; empty: inherited
    long open_max = 0;                       // soft and hard limit of descriptors; 0: inherited
};

// Starts a program and returns its pid; it becomes this process's child.
pid_t start_process(const std::vector<std::string>& arguments, const process_options& options = {});

// Waits for a child and returns its exit status, or 1000 + the signal that ended it.
int wait_for_exit(pid_t child);

// Waits until a process, a child or not, has ended.
void wait_for_end(pid_t pid);

// Runs a program to its end and returns its exit status.
int run_process(const std::vector<std::string>& arguments, const process_options& options = {});

// The path of the ravod of this build, or of what the variable RAVOD names in its place.
std::string ravod_path();

// A unix datagram socket on which a service says "READY=1".
class ready_socket {
  public:
    ready_socket();
    ~ready_socket();
    ready_socket(const ready_socket&) = delete;
    ready_socket& operator=(const ready_socket&) = delete;

    // "NOTIFY_SOCKET=..." for the service's environment.
    std::string environment() const;
    // Waits for the datagram and returns the sender's pid.
    pid_t wait();
    // Waits for the datagram, which is not taken, or for the end of a child. Whether it has come.
    bool wait_or_end(pid_t child) const;
    // Readable when a datagram has come.
    int descriptor() const { return fd; }

  private:
    std::string path;
    int fd;
};

// ravod in the foreground as a child, serving when the constructor returns.
class ravod_process {
  public:
    explicit ravod_process(const std::vector<std::string>& options = {},
                           const process_options& how = {});
    // Stops a daemon that still runs and expects exit status 0.
    ~ravod_process();
    ravod_process(const ravod_process&) = delete;
    ravod_process& operator=(const ravod_process&) = delete;

    // The one that serves, which RAVOD may have started in turn.
    pid_t pid() const { return serving; }
    void signal(int sig) const;
    // Sends SIGTERM, unless it has stopped already, and returns the exit status.
    int stop();

  private:
    pid_t child;
    pid_t serving;
};

#endif  // TESTS_SUPPORT_DAEMON_H
