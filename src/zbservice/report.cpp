// Tells the operator why the bus cannot do something.
#include "report.h"

#include <syslog.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace zb {
namespace {
using monotonic = std::chrono::steady_clock;
constexpr std::chrono::minutes between_lines{1};

struct line_told {
    std::array<char, 108> subject{};
    std::size_t length = 0;  // 0: none was told
    monotonic::time_point at;

    bool is_about(std::string_view other) const {
        return std::string_view(subject.data(), length) == other;
    }
};

std::mutex told_lock;
std::array<line_told, 8> told;
}  // namespace

void report(const char* format, ...) {
    char line[512];
    va_list arguments;
    va_start(arguments, format);
    (void)std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    syslog(LOG_DAEMON | LOG_ERR, "zbservice: %s", line);
    (void)std::fprintf(stderr, "zbservice: %s\n", line);
}

bool is_due(std::string_view subject) {
    subject = subject.substr(0, told[0].subject.size());
    const auto now = monotonic::now();
    const std::lock_guard hold(told_lock);
    const auto is_subject = [subject](const line_told& each) { return each.is_about(subject); };
    auto* line = std::find_if(told.begin(), told.end(), is_subject);
    if (line != told.end() && now - line->at < between_lines) return false;
    if (line == told.end())
        line = std::min_element(told.begin(), told.end(),
                                [](const auto& a, const auto& b) { return a.at < b.at; });
    line->length = subject.copy(line->subject.data(), line->subject.size());
    line->at = now;
    return true;
}

}  // namespace zb
