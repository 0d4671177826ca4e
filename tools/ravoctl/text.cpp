// Texts that come from anywhere, made fit for a terminal and for JSON.
#include "text.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <span>

namespace {

struct range {
    char32_t first;
    char32_t last;
};

// Marks of writing direction and separators: they reorder or break a line that they stand in.
constexpr range harmful[] = {
    {0x200e, 0x200f}, {0x2028, 0x202e}, {0x2066, 0x2069}, {0x061c, 0x061c}, {0xfeff, 0xfeff},
};

constexpr range combining[] = {
    {0x0300, 0x036f}, {0x0483, 0x0489}, {0x0591, 0x05bd}, {0x064b, 0x065f}, {0x1ab0, 0x1aff},
    {0x1dc0, 0x1dff}, {0x200b, 0x200d}, {0x20d0, 0x20ff}, {0xfe00, 0xfe0f}, {0xfe20, 0xfe2f},
};

constexpr range wide[] = {
    {0x1100, 0x115f},   {0x2e80, 0x303e},   {0x3041, 0xa4cf},   {0xac00, 0xd7a3},
    {0xf900, 0xfaff},   {0xfe30, 0xfe6f},   {0xff00, 0xff60},   {0xffe0, 0xffe6},
    {0x1f300, 0x1f64f}, {0x1f680, 0x1f6ff}, {0x1f900, 0x1f9ff}, {0x20000, 0x3fffd},
};

bool is_in(std::span<const range> ranges, char32_t character) {
    return std::any_of(ranges.begin(), ranges.end(), [character](const range& r) {
        return r.first <= character && character <= r.last;
    });
}

// The first character of a text, or its first byte when that begins no character.
struct decoded {
    char32_t character;
    size_t length;
    bool is_valid;
};

// How many bytes a character takes that begins so, and the smallest that may be written with as
// many; 0 for a byte that begins none.
struct lead {
    size_t length;
    char32_t bits;
    char32_t smallest;
};

lead read_lead(unsigned char byte) {
    if (byte < 0x80) return {1, byte, 0};
    if ((byte & 0xe0U) == 0xc0) return {2, byte & 0x1fU, 0x80};
    if ((byte & 0xf0U) == 0xe0) return {3, byte & 0x0fU, 0x800};
    if ((byte & 0xf8U) == 0xf0) return {4, byte & 0x07U, 0x10000};
    return {0, 0, 0};
}

decoded decode(std::string_view text) {
    const auto byte_at = [text](size_t at) { return static_cast<unsigned char>(text[at]); };
    const decoded bad_byte = {byte_at(0), 1, false};
    const lead first = read_lead(byte_at(0));
    if (first.length == 0 || first.length > text.size()) return bad_byte;
    char32_t character = first.bits;
    for (size_t i = 1; i < first.length; ++i) {
        if ((byte_at(i) & 0xc0U) != 0x80) return bad_byte;
        character = character << 6 | (byte_at(i) & 0x3fU);
    }
    const bool is_surrogate = 0xd800 <= character && character <= 0xdfff;
    if (character < first.smallest || character > 0x10ffff || is_surrogate) return bad_byte;
    return {character, first.length, true};
}

bool is_control(char32_t character) {
    return character < 0x20 || (0x7f <= character && character <= 0x9f);
}

bool is_harmless(const decoded& next) {
    return next.is_valid && !is_control(next.character) && !is_in(harmful, next.character);
}

size_t width_of(char32_t character) {
    if (is_in(combining, character)) return 0;
    return is_in(wide, character) ? 2 : 1;
}

// Hands each character, or lone bad byte, of the text and its bytes to the function.
template <class Function>
void for_each_character(std::string_view text, Function function) {
    while (!text.empty()) {
        const decoded next = decode(text);
        function(next, text.substr(0, next.length));
        text.remove_prefix(next.length);
    }
}

void append_escape(std::string& out, char32_t character, std::string_view bytes) {
    switch (character) {
        case U'\n':
            out += "\\n";
            return;
        case U'\r':
            out += "\\r";
            return;
        case U'\t':
            out += "\\t";
            return;
        default:
            for (const char byte : bytes) {
                fmt::format_to(std::back_inserter(out), "\\x{:02X}",
                               static_cast<unsigned char>(byte));
            }
    }
}

}  // namespace

std::string escaped(std::string_view text) {
    std::string out;
    for_each_character(text, [&out](const decoded& next, std::string_view bytes) {
        if (next.character == U'\\') {
            out += "\\\\";
        } else if (is_harmless(next)) {
            out += bytes;
        } else {
            append_escape(out, next.character, bytes);
        }
    });
    return out;
}

size_t display_width(std::string_view escaped_text) {
    size_t columns = 0;
    for_each_character(escaped_text, [&columns](const decoded& next, std::string_view) {
        columns += width_of(next.character);
    });
    return columns;
}

std::string cut_to_width(std::string_view escaped_text, size_t columns) {
    if (display_width(escaped_text) <= columns) return std::string(escaped_text);
    std::string out;
    size_t used = 1;  // the mark's own column
    while (!escaped_text.empty()) {
        const decoded next = decode(escaped_text);
        used += width_of(next.character);
        if (used > columns) break;
        out += escaped_text.substr(0, next.length);
        escaped_text.remove_prefix(next.length);
    }
    return out + "…";
}

bool is_printable(std::string_view text) {
    bool result = true;
    for_each_character(text, [&result](const decoded& next, std::string_view) {
        const bool is_layout = next.character == U'\n' || next.character == U'\t';
        result = result && (is_layout || is_harmless(next));
    });
    return result;
}

bool is_utf8(std::string_view text) {
    bool result = true;
    for_each_character(text, [&result](const decoded& next, std::string_view) {
        result = result && next.is_valid;
    });
    return result;
}

std::string with_replacements(std::string_view text) {
    std::string out;
    for_each_character(text, [&out](const decoded& next, std::string_view bytes) {
        out += next.is_valid ? bytes : std::string_view("\xef\xbf\xbd");
    });
    return out;
}

std::string to_hex(std::string_view bytes) {
    std::string out;
    for (const char byte : bytes) {
        fmt::format_to(std::back_inserter(out), "{:02x}", static_cast<unsigned char>(byte));
    }
    return out;
}

std::string hex_dump(std::string_view bytes) {
    constexpr size_t line_bytes = 16;
    std::string out;
    for (size_t offset = 0; offset < bytes.size(); offset += line_bytes) {
        std::string digits;
        std::string letters;
        for (const char byte : bytes.substr(offset, line_bytes)) {
            fmt::format_to(std::back_inserter(digits), " {:02x}", static_cast<unsigned char>(byte));
            letters += 0x20 <= byte && byte < 0x7f ? byte : '.';
        }
        fmt::format_to(std::back_inserter(out), "{:08x} {:<48}  {}\n", offset, digits, letters);
    }
    return out;
}
