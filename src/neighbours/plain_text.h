// Text from outside, made fit for a line of a log or a terminal.
#ifndef NEIGHBOURS_PLAIN_TEXT_H
#define NEIGHBOURS_PLAIN_TEXT_H

#include <string>
#include <string_view>

// Whether the byte at this place belongs to a control character: of ASCII, or, in UTF-8, of the
// block behind it (U+0080 to U+009F), in which some terminals and viewers know line ends as well.
bool is_control(std::string_view text, size_t at);

bool is_not_ascii(std::string_view text, size_t at);

// The text with certain bytes as \xNN.
std::string escape(std::string_view text, bool (*is_escaped)(std::string_view, size_t));

#endif  // NEIGHBOURS_PLAIN_TEXT_H
