// A notifier that tells how it was started. A test puts it in the notifier's place and reads the
// records from a FIFO: the number of bytes, a newline, and that many bytes.
//
//   parent PID            of this process, once a reader is there
//   blocked HEX           the signal mask, and
//   ignored HEX           the ignored signals, as /proc tells them
//   fd N MODE TARGET      each open descriptor; MODE is r, w or rw
//   (an empty line)
//   the words of the command line, each with its NUL
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

std::string read_whole(const char* path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

std::string status_value(const std::string& field) {
    const std::string status = read_whole("/proc/self/status");
    const size_t start = status.find('\t', status.find("\n" + field + ":")) + 1;
    return status.substr(start, status.find('\n', start) - start);
}

std::string descriptors() {
    std::vector<int> numbers;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        numbers.push_back(std::stoi(entry.path().filename()));
    }
    std::sort(numbers.begin(), numbers.end());
    std::string lines;
    for (const int fd : numbers) {
        std::error_code gone;  // the descriptor of the listing itself
        const std::string link = "/proc/self/fd/" + std::to_string(fd);
        const auto target = std::filesystem::read_symlink(link, gone);
        if (gone) continue;
        static constexpr const char* modes[] = {"r", "w", "rw"};
        lines += "fd " + std::to_string(fd) + " " + modes[fcntl(fd, F_GETFL) & O_ACCMODE] + " " +
                 target.string() + "\n";
    }
    return lines;
}

void write_whole(int fd, const std::string& bytes) {
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t step = write(fd, bytes.data() + done, bytes.size() - done);
        if (step <= 0) return;
        done += static_cast<size_t>(step);
    }
}

}  // namespace

int main() {
    const std::string signals = "blocked " + status_value("SigBlk") + "\nignored " +
                                status_value("SigIgn") + "\n" + descriptors();
    (void)puts("the notifier's output");
    (void)fputs("the notifier's error\n", stderr);
    (void)fflush(nullptr);
    const int fifo = open("/tmp/notifications", O_WRONLY | O_CLOEXEC);
    const std::string record = "parent " + std::to_string(getppid()) + "\n" + signals + "\n" +
                               read_whole("/proc/self/cmdline");
    write_whole(fifo, std::to_string(record.size()) + "\n" + record);
    return 0;
}
