// notify: the notifier of a plain machine. Puts a notification's arguments into its template and
// delivers the text to the system log and, as one JSON line, to the notifications file.
//
//   notify send -A APP -C CATEGORY -M ID -l LEVEL -t TYPE TEMPLATE [ARG0 [ARG1 ...]]
//
// Arguments are data: they are put in once, braces in them are not looked at again, and whatever
// bytes they hold the result stays one line.
#include <fcntl.h>
#include <getopt.h>
#include <jansson.h>
#include <syslog.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <span>
#include <string>
#include <string_view>

namespace {

constexpr char notifications_file[] = "/var/log/network/notifications.jsonl";

struct notification {
    const char* application = nullptr;
    const char* category = nullptr;
    const char* message_id = nullptr;
    const char* level = nullptr;
    const char* type = nullptr;
    std::string text;
};

int usage() {
    (void)fputs("usage: notify send -A APP -C CATEGORY -M ID -l LEVEL -t TYPE TEMPLATE [ARG ...]\n",
                stderr);
    return 2;
}

// Replaces each {N} by argument N. A place without an argument stays as it is.
std::string expand(std::string_view form, std::span<char*> arguments) {
    std::string text;
    while (!form.empty()) {
        size_t digits = 1;
        size_t index = 0;
        while (digits < form.size() && digits < 4 && isdigit(form[digits]) != 0) {
            index = index * 10 + static_cast<size_t>(form[digits++] - '0');
        }
        const bool is_place = form[0] == '{' && digits > 1 && digits < form.size() &&
                              form[digits] == '}' && index < arguments.size();
        if (is_place)
            text += arguments[index];
        else
            text += form[0];
        form.remove_prefix(is_place ? digits + 1 : 1);
    }
    return text;
}

bool is_control(unsigned char byte) { return byte < 0x20 || byte == 0x7f; }
bool is_not_ascii(unsigned char byte) { return byte >= 0x80; }

// The text with certain bytes as \xNN.
std::string escape(const std::string& text, bool (*is_escaped)(unsigned char)) {
    std::string line;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (!is_escaped(byte)) {
            line += c;
            continue;
        }
        char hex[5];
        (void)snprintf(hex, sizeof hex, "\\x%02x", byte);
        line += hex;
    }
    return line;
}

int priority_of(const char* level) {
    if (strcmp(level, "warn") == 0) return LOG_WARNING;
    if (strcmp(level, "error") == 0) return LOG_ERR;
    return LOG_INFO;
}

void tell_system_log(const notification& note) {
    openlog("notify", LOG_PID, LOG_DAEMON);
    // Control bytes escaped, so that it is one line in any log.
    syslog(priority_of(note.level), "%s", escape(note.text, is_control).c_str());
    closelog();
}

// JSON holds any text, but only as UTF-8: one that is not has its bytes beyond ASCII escaped.
json_t* json_text(const std::string& text) {
    json_t* value = json_string(text.c_str());
    return value != nullptr ? value : json_string(escape(text, is_not_ascii).c_str());
}

// Appends one line with one write, so that lines of notifiers at work at the same time stay whole.
bool append_to_file(const notification& note) {
    json_t* line =
        json_pack("{s:I, s:s, s:s, s:s, s:s, s:o}", "time", static_cast<json_int_t>(time(nullptr)),
                  "application", note.application, "category", note.category, "id", note.message_id,
                  "level", note.level, "text", json_text(note.text));
    char* text = json_dumps(line, JSON_COMPACT);
    json_decref(line);
    if (text == nullptr) return false;
    const std::string bytes = std::string(text) + "\n";
    free(text);
    const int fd = open(notifications_file, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    const ssize_t written = write(fd, bytes.data(), bytes.size());
    close(fd);
    return written == static_cast<ssize_t>(bytes.size());
}

// Reads the options before the template. Returns false when one is missing or unknown.
bool parse_options(int argc, char** argv, notification& note) {
    int letter = 0;
    while ((letter = getopt(argc, argv, "+A:C:M:l:t:")) != -1) {
        switch (letter) {
            case 'A':
                note.application = optarg;
                break;
            case 'C':
                note.category = optarg;
                break;
            case 'M':
                note.message_id = optarg;
                break;
            case 'l':
                note.level = optarg;
                break;
            case 't':
                note.type = optarg;
                break;  // accepted; every notification is delivered alike
            default:
                return false;
        }
    }
    return note.application != nullptr && note.category != nullptr && note.message_id != nullptr &&
           note.level != nullptr && note.type != nullptr && optind < argc;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2 || strcmp(argv[1], "send") != 0) return usage();
    notification note;
    optind = 2;
    if (!parse_options(argc, argv, note)) return usage();
    const std::span<char*> words(argv, static_cast<size_t>(argc));
    note.text = expand(argv[optind], words.subspan(static_cast<size_t>(optind) + 1));
    tell_system_log(note);
    if (append_to_file(note)) return 0;
    (void)fprintf(stderr, "notify: cannot write %s\n", notifications_file);
    return 1;
}
