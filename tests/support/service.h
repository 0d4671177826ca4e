// A neighbour service in a test: started, called over the bus, stopped.
#ifndef TESTS_SUPPORT_SERVICE_H
#define TESTS_SUPPORT_SERVICE_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "support/daemon.h"
#include "zbservice.h"

class service_process {
  public:
    // Serves when this returns. output is a file for what it prints; empty: inherited.
    service_process(const std::string& program, std::string service_name,
                    const std::string& output = "")
        : name(std::move(service_name)) {
        ready_socket ready;
        child = start_process({program}, {.environment = {ready.environment()}, .output = output});
        ready.wait();
    }
    ~service_process() {
        if (child > 0) {
            EXPECT_EQ(stop(SIGTERM), 0);
        }
    }
    service_process(const service_process&) = delete;
    service_process& operator=(const service_process&) = delete;

    void signal(int sig) const { kill(child, sig); }
    // Sends the signal and returns the exit status.
    int stop(int sig) {
        kill(child, sig);
        return wait_for_exit(std::exchange(child, -1));
    }

    // The reply to a request, or zb_call's name for its failure.
    std::string call(const std::string& method, const std::string& request, int fd = -1) const {
        zb_io* io = zb_io_create();
        EXPECT_EQ(zb_io_write(io, request.data(), request.size()), 0);
        const int result = zb_call(name.c_str(), method.c_str(), io, 20, fd);
        std::string answer =
            result == 0 ? static_cast<const char*>(zb_io_read(io, nullptr)) : zb_strerror(result);
        zb_io_free(io);
        return answer;
    }

    // What the service has open but its sockets, of which those of callers close when it has time.
    std::vector<std::string> open_files() const {
        std::vector<std::string> files;
        const std::string folder = "/proc/" + std::to_string(child) + "/fd";
        for (const auto& entry : std::filesystem::directory_iterator(folder)) {
            std::error_code gone;
            const std::string file = std::filesystem::read_symlink(entry.path(), gone);
            if (!gone && !file.starts_with("socket:")) files.push_back(file);
        }
        std::sort(files.begin(), files.end());
        return files;
    }

  private:
    std::string name;
    pid_t child = -1;
};

#endif  // TESTS_SUPPORT_SERVICE_H
