// A file that takes its name, and the place of an older one, when it is complete.
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <string>
#include <string_view>

class new_file {
  public:
    // "-" is standard output. All throw std::system_error, with the path in its words; the
    // unfinished file is then gone.
    explicit new_file(const std::string& file_path, mode_t mode);
    ~new_file();
    new_file(const new_file&) = delete;
    new_file& operator=(const new_file&) = delete;

    void write(std::string_view text);

    // It has its name from then on, and is on the disk.
    void finish();

  private:
    [[noreturn]] void fail();
    bool is_stdout() const { return unfinished.empty(); }

    std::string path;
    std::string unfinished;
    FILE* file = nullptr;
};
