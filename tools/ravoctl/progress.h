// How far a long operation is, on a standard error that is a terminal.
#pragma once

#include <fmt/format.h>
#include <unistd.h>

#include <cstdint>
#include <string>

class progress {
  public:
    progress(std::string what, uint64_t steps) : words(std::move(what)), total(steps) {}
    ~progress() {
        if (is_shown) (void)fputs("\r\x1b[K", stderr);
    }
    progress(const progress&) = delete;
    progress& operator=(const progress&) = delete;

    void step() {
        constexpr uint64_t steps_between = 1000;
        if (++done_steps % steps_between != 0 || !is_terminal) return;
        is_shown = true;
        fmt::print(stderr, "\r{}: {} of {}\x1b[K", words, done_steps, total);
        (void)fflush(stderr);
    }

  private:
    const std::string words;
    const uint64_t total;
    const bool is_terminal = isatty(STDERR_FILENO) != 0;
    uint64_t done_steps = 0;
    bool is_shown = false;
};
