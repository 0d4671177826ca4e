// Texts from outside, cut and shown.
#ifndef HOOKS_TEXT_H
#define HOOKS_TEXT_H

#include <cstddef>
#include <string_view>

inline bool is_control(char byte) {
    return static_cast<unsigned char>(byte) < 0x20 || byte == 0x7f;
}

// How many bytes of a text fit, without the beginning of a character that does not.
inline size_t fitting_length(std::string_view text, size_t most) {
    const auto is_continuation = [text](size_t at) {
        return (static_cast<unsigned char>(text[at]) & 0xc0U) == 0x80U;
    };
    if (text.size() <= most) return text.size();
    size_t length = most;
    while (length > 0 && most - length < 4 && is_continuation(length)) --length;
    return is_continuation(length) ? most : length;  // no UTF-8: any place will do
}

#endif  // HOOKS_TEXT_H
