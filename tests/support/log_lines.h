// The log file held against the lines that a test expects. RAVO_SOURCES is the folder of the units.
#ifndef TESTS_SUPPORT_LOG_LINES_H
#define TESTS_SUPPORT_LOG_LINES_H

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/files.h"

struct expected_line {
    std::string level;
    std::string unit;  // the source file's name
    std::string function;
    std::string message;  // with its line end
};

// Takes the expected start off the text. False, with the text as it is: it starts otherwise.
inline bool take(std::string& text, const std::string& start) {
    if (!text.starts_with(start)) return false;
    text.erase(0, start.size());
    return true;
}

// Takes a line number off the text and says whether that line of the unit is a place that logs.
inline bool take_line_number(std::string& text, const std::string& unit) {
    const size_t digits = text.find_first_not_of("0123456789");
    if (digits == 0 || digits > 6) return false;
    const size_t number = std::stoul(text.substr(0, digits));
    text.erase(0, digits);
    const auto lines = split_lines(read_file(RAVO_SOURCES "/" + unit));
    return number >= 1 && number <= lines.size() &&
           lines[number - 1].find("HERE") != std::string::npos;
}

// Expects the log file to hold exactly these lines, byte for byte.
inline void expect_log(const std::vector<expected_line>& lines) {
    std::string rest = read_file(log_path);
    for (const expected_line& line : lines) {
        const std::string head =
            std::to_string(getpid()) + " [" + line.level + "] " + line.unit + " [";
        const std::string tail = "] " + line.function + ":" + line.message;
        ASSERT_TRUE(take(rest, head)) << "wanted: " << head << "\ngot: " << rest;
        ASSERT_TRUE(take_line_number(rest, line.unit)) << rest;
        ASSERT_TRUE(take(rest, tail)) << "wanted: " << tail << "\ngot: " << rest;
    }
    EXPECT_EQ(rest, "");
}

inline void forget_log() { std::filesystem::remove(log_path); }

#endif  // TESTS_SUPPORT_LOG_LINES_H
