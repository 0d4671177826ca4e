// Small verbs on files for tests. Every failure ends the test program with a message.
#ifndef TESTS_SUPPORT_FILES_H
#define TESTS_SUPPORT_FILES_H

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

inline constexpr char log_path[] = "/var/log/network/RAVO.log";
inline constexpr char db_path[] = "/etc/config/ravo/ravo.db";

// The file's bytes; empty when there is none.
inline std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

inline void write_file(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary);
    out << bytes;
    ASSERT_TRUE(out.flush().good()) << path;
}

inline std::vector<std::string> split_lines(const std::string& text) {
    std::vector<std::string> lines;
    std::string line;
    for (std::istringstream in(text); std::getline(in, line);) lines.push_back(line);
    return lines;
}

inline size_t count_of(const std::string& text, const std::string& part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

#endif  // TESTS_SUPPORT_FILES_H
