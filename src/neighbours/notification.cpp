// What a notification says, and the lines that tell it.
#include "notification.h"

#include <jansson.h>

#include <cstdlib>
#include <ctime>
#include <memory>

#include "plain_text.h"

namespace {

constexpr size_t max_place_digits = 3;  // of the N in {N}

bool is_digit(char c) { return c >= '0' && c <= '9'; }

bool is_utf8(const std::string& text) {
    json_t* value = json_string(text.c_str());
    json_decref(value);
    return value != nullptr;
}

// The text itself when it is UTF-8; otherwise with its bytes beyond ASCII escaped.
std::string as_utf8(const std::string& text) {
    return is_utf8(text) ? text : escape(text, is_not_ascii);
}

// JSON holds any text on one line, but only as UTF-8.
json_t* json_text(const std::string& text) { return json_string(as_utf8(text).c_str()); }

}  // namespace

std::string expand(std::string_view form, std::span<char*> arguments) {
    std::string text;
    while (!form.empty()) {
        size_t end = 1;
        size_t index = 0;
        while (end < form.size() && end <= max_place_digits && is_digit(form[end])) {
            index = index * 10 + static_cast<size_t>(form[end++] - '0');
        }
        const bool is_place = form[0] == '{' && end > 1 && end < form.size() && form[end] == '}' &&
                              index < arguments.size();
        if (is_place)
            text += arguments[index];
        else
            text += form[0];
        form.remove_prefix(is_place ? end + 1 : 1);
    }
    return text;
}

std::string log_line(const notification& note) { return escape(as_utf8(note.text), is_control); }

std::string json_line(const notification& note) {
    json_t* object = json_pack(
        "{s:I, s:o, s:o, s:o, s:o, s:o}", "time", static_cast<json_int_t>(time(nullptr)),
        "application", json_text(note.application), "category", json_text(note.category), "id",
        json_text(note.message_id), "level", json_text(note.level), "text", json_text(note.text));
    const std::unique_ptr<char, void (*)(void*)> text(json_dumps(object, JSON_COMPACT), free);
    json_decref(object);
    return text ? std::string(text.get()) + "\n" : std::string();
}
