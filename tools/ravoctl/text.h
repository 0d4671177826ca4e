// Texts that come from anywhere, made fit for a terminal and for JSON.
#pragma once

#include <string>
#include <string_view>

// Makes the C library, which knows the characters, take texts for UTF-8, whatever the user's
// locale. To be called before anything below. False when the system lacks the locale.
bool use_utf8();

// A text for a terminal: what could move the cursor, hide or reorder other text is written as an
// escape, so that the output is printable and one line. Newline, carriage return and tab become
// \n, \r and \t, a backslash becomes \\, all else that is not printable, marks of writing direction
// and bytes that are not UTF-8 become \xNN for each of their bytes.
std::string escaped(std::string_view text);

// The terminal columns that an escaped text takes: wide characters two, combining ones none.
size_t display_width(std::string_view escaped_text);

// The longest beginning of an escaped text that takes at most the given columns, with "…" in place
// of what was cut.
std::string cut_to_width(std::string_view escaped_text, size_t columns);

// True for UTF-8 that holds nothing to escape but newlines and tabs.
bool is_printable(std::string_view text);

bool is_utf8(std::string_view text);

// The same text with U+FFFD for each byte that is not part of a UTF-8 character.
std::string with_replacements(std::string_view text);

// Two hexadecimal digits for each byte.
std::string to_hex(std::string_view bytes);

// Lines of 16 bytes: offset, hexadecimal digits, printable ASCII; each ends with a newline.
std::string hex_dump(std::string_view bytes);
