// A notification as a mail. Whatever the text holds is encoded unless it is plain ASCII, so it
// begins no header, ends none, and is not taken for an encoded one.
#include "notify_mail.h"

#include <algorithm>
#include <string_view>

namespace {

constexpr size_t most_subject_bytes = 200;
constexpr size_t most_line_bytes = 900;  // of a body that is not encoded; SMTP allows 998
constexpr size_t word_bytes = 42;  // before encoding: an encoded word has 75 characters at most
constexpr size_t encoded_line_bytes = 54;  // before encoding

std::string base64(std::string_view bytes) {
    constexpr char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    for (size_t at = 0; at < bytes.size(); at += 3) {
        unsigned group = 0;
        for (size_t n = at; n < at + 3; ++n) {
            group = group << 8U | (n < bytes.size() ? static_cast<unsigned char>(bytes[n]) : 0U);
        }
        for (const unsigned shift : {18U, 12U, 6U, 0U}) text += digits[group >> shift & 63U];
    }
    const size_t missing = (3 - bytes.size() % 3) % 3;
    return text.replace(text.size() - missing, missing, missing, '=');
}

// The first bytes of a text, at most so many, that end at the end of a character.
std::string_view start_of(std::string_view text, size_t most) {
    if (text.size() <= most) return text;
    size_t end = most;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xc0U) == 0x80U) --end;
    return text.substr(0, end > 0 ? end : most);
}

bool is_plain(std::string_view text) {
    return std::ranges::all_of(text, [](char c) { return c >= 0x20 && c < 0x7f; });
}

// A header's text: as it stands, or as encoded words on lines of their own.
std::string header_text(std::string_view text) {
    if (is_plain(text) && text.find("=?") == std::string_view::npos) return std::string(text);
    std::string words;
    while (!text.empty()) {
        const std::string_view part = start_of(text, word_bytes);
        words += (words.empty() ? "" : "\n ") + ("=?utf-8?B?" + base64(part) + "?=");
        text.remove_prefix(part.size());
    }
    return words;
}

std::string joined(const std::vector<std::string>& addresses) {
    std::string line;
    for (const std::string& address : addresses) line += (line.empty() ? "" : ", ") + address;
    return line;
}

// The header of the body's encoding, and the body.
std::string body_of(const std::string& line) {
    if (is_plain(line) && line.size() <= most_line_bytes) {
        return "Content-Transfer-Encoding: 7bit\n\n" + line + "\n";
    }
    std::string text = "Content-Transfer-Encoding: base64\n\n";
    const std::string bytes = line + "\n";
    for (size_t at = 0; at < bytes.size(); at += encoded_line_bytes) {
        text += base64(std::string_view(bytes).substr(at, encoded_line_bytes)) + "\n";
    }
    return text;
}

std::string date_of(time_t time) {
    tm parts = {};
    gmtime_r(&time, &parts);
    char text[64];
    return {text, strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S +0000", &parts)};
}

}  // namespace

std::string to_mail(const notice& what, const std::string& from,
                    const std::vector<std::string>& to) {
    const std::string subject = "[" + what.host + "] " + what.level + ": " + what.text;
    return "From: " + from + "\nTo: " + joined(to) +
           "\nSubject: " + header_text(start_of(subject, most_subject_bytes)) +
           "\nDate: " + date_of(what.time) + "\nMessage-ID: <ravod." + what.entry + "@" +
           what.host +
           ">\nAuto-Submitted: auto-generated\nMIME-Version: 1.0\n"
           "Content-Type: text/plain; charset=utf-8\n" +
           body_of(what.text);
}
