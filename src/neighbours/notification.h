// What a notification says, and the lines that tell it.
#ifndef NEIGHBOURS_NOTIFICATION_H
#define NEIGHBOURS_NOTIFICATION_H

#include <span>
#include <string>
#include <string_view>

struct notification {
    const char* application = nullptr;
    const char* category = nullptr;
    const char* message_id = nullptr;
    const char* level = nullptr;
    const char* type = nullptr;
    std::string text;
};

// The template with each {N} replaced by argument N. A place without an argument stays as it is,
// and braces in arguments are not looked at.
std::string expand(std::string_view form, std::span<char*> arguments);

// The text on one line in UTF-8 without control characters, for a log.
std::string log_line(const notification& note);

// The notification, told now, as a line of JSON with its line end; empty when there was no memory
// for it.
std::string json_line(const notification& note);

#endif  // NEIGHBOURS_NOTIFICATION_H
