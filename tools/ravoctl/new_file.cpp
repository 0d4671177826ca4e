// A file that takes its name, and the place of an older one, when it is complete.
#include "new_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "text.h"

new_file::new_file(const std::string& file_path, mode_t mode) : path(file_path) {
    if (path == "-") {
        file = stdout;
        return;
    }
    unfinished = fmt::format("{}.{}.new", path, getpid());
    const int fd = open(unfinished.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    file = fd < 0 ? nullptr : fdopen(fd, "w");
    if (file == nullptr) fail();
}

new_file::~new_file() {
    if (is_stdout()) return;
    if (file != nullptr) (void)fclose(file);
    (void)unlink(unfinished.c_str());
}

void new_file::fail() {
    const int error = errno;
    if (!is_stdout()) (void)unlink(unfinished.c_str());
    throw std::system_error(error, std::generic_category(), escaped(path));
}

void new_file::write(std::string_view text) {
    if (fwrite(text.data(), 1, text.size(), file) != text.size()) fail();
}

void new_file::finish() {
    if (is_stdout()) return;
    if (fflush(file) != 0 || fsync(fileno(file)) != 0) fail();
    if (fclose(std::exchange(file, nullptr)) != 0) fail();
    if (rename(unfinished.c_str(), path.c_str()) != 0) fail();
}
