// Texts that come from anywhere, made fit for a terminal and for JSON.
#include "text.h"

#include <fmt/format.h>

#include <algorithm>
#include <clocale>
#include <cwchar>
#include <cwctype>
#include <iterator>

namespace {

// Marks that reorder the text around them. The C library counts them as printable.
constexpr wchar_t direction_marks[] =
    L"\u061c\u200e\u200f\u202a\u202b\u202c\u202d\u202e\u2066\u2067\u2068\u2069\ufeff";

// The first character of a text, or its first byte when that begins no character.
struct decoded {
    wchar_t character;
    size_t length;
    bool is_valid;
};

decoded decode(std::string_view text) {
    constexpr wchar_t last_character = 0x10ffff;  // the C library decodes larger numbers, too
    mbstate_t state = {};
    wchar_t character = L'\0';
    const size_t length = mbrtowc(&character, text.data(), text.size(), &state);
    if (length == 0) return {L'\0', 1, true};
    if (length > text.size() || character > last_character) return {L'\0', 1, false};
    return {character, length, true};
}

bool is_harmless(const decoded& next) {
    return next.is_valid && iswprint(static_cast<wint_t>(next.character)) != 0 &&
           wcschr(direction_marks, next.character) == nullptr;
}

// What is not printable stands in no escaped text.
size_t width_of(wchar_t character) { return static_cast<size_t>(std::max(wcwidth(character), 0)); }

// Hands each character, or lone bad byte, of the text and its bytes to the function.
template <class Function>
void for_each_character(std::string_view text, Function function) {
    while (!text.empty()) {
        const decoded next = decode(text);
        function(next, text.substr(0, next.length));
        text.remove_prefix(next.length);
    }
}

void append_escape(std::string& out, wchar_t character, std::string_view bytes) {
    switch (character) {
        case L'\n':
            out += "\\n";
            return;
        case L'\r':
            out += "\\r";
            return;
        case L'\t':
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

bool use_utf8() { return setlocale(LC_CTYPE, "C.UTF-8") != nullptr; }

std::string escaped(std::string_view text) {
    std::string out;
    for_each_character(text, [&out](const decoded& next, std::string_view bytes) {
        if (next.character == L'\\') {
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
        const bool is_layout = next.character == L'\n' || next.character == L'\t';
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
