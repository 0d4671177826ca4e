// Settings files of lines of words: a name and its values. What begins with '#' is a comment.
#ifndef NEIGHBOURS_SETTINGS_LINES_H
#define NEIGHBOURS_SETTINGS_LINES_H

#include <functional>
#include <string>
#include <string_view>
#include <vector>

using words = std::vector<std::string>;

// Gives each line that has words and is no comment to `set`, and returns those that it does not
// understand, which is what false says.
std::vector<std::string> read_settings_lines(std::string_view text,
                                             const std::function<bool(const words&)>& set);

// The whole content of a file; empty when it cannot be read.
std::string read_settings_file(const char* path);

// Takes a decimal number within bounds. False, with the number as it was: it is none, or beyond.
bool set_number(unsigned& number, std::string_view text, unsigned least, unsigned most);

#endif  // NEIGHBOURS_SETTINGS_LINES_H
