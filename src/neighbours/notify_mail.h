// A notification as a mail.
#ifndef NEIGHBOURS_NOTIFY_MAIL_H
#define NEIGHBOURS_NOTIFY_MAIL_H

#include <ctime>
#include <string>
#include <vector>

// What a mail says. The text is one line without control characters, in UTF-8.
struct notice {
    std::string entry;  // the name of its entry: the same notification has it each time it is sent
    std::string host;
    time_t time = 0;
    std::string level, text;
};

// The whole message, with its headers. The text stands in the subject and in the body, and reaches
// no other header.
std::string to_mail(const notice& what, const std::string& from,
                    const std::vector<std::string>& to);

#endif  // NEIGHBOURS_NOTIFY_MAIL_H
