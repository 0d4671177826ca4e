// The wall clock of a daemon under test, set by the test while the daemon runs. The daemon preloads
// set_clock.cpp and finds the clock's page by the variable SET_CLOCK. Other clocks run on.
#ifndef TESTS_SUPPORT_SET_CLOCK_H
#define TESTS_SUPPORT_SET_CLOCK_H

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

struct wall_clock_page {
    std::atomic<int64_t> seconds;  // since the epoch; it stands still
    std::atomic<int64_t> leap;     // but goes on by so many with each reading
};

// The page in a file of this name, which is made. Ends the program when there is none.
inline wall_clock_page& map_wall_clock(const char* path) {
    const int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0 || ftruncate(fd, sizeof(wall_clock_page)) != 0) abort();
    void* place = mmap(nullptr, sizeof(wall_clock_page), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (place == MAP_FAILED) abort();
    (void)close(fd);
    return *static_cast<wall_clock_page*>(place);
}

inline constexpr char wall_clock_path[] = "/tmp/clock";

// What has a program go by the page in that file.
inline std::vector<std::string> wall_clock_environment(const std::string& library) {
    return {"LD_PRELOAD=" + library, std::string("SET_CLOCK=") + wall_clock_path};
}

#endif  // TESTS_SUPPORT_SET_CLOCK_H
