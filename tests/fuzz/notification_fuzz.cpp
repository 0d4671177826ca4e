// What a notification's words become: arguments are put in once, and both lines that tell it stay
// one line, whatever bytes they hold.
//
// Input: the template, then arguments, each up to a zero byte.
#include "notification.h"

#include <jansson.h>

#include <memory>
#include <vector>

#include "fuzz_target.h"

namespace {

using json_ptr = std::unique_ptr<json_t, void (*)(json_t*)>;

bool is_utf8(const std::string& text) {
    return json_ptr(json_stringn(text.data(), text.size()), json_decref) != nullptr;
}

bool has_control_character(const std::string& text) {
    for (size_t at = 0; at < text.size(); ++at) {
        const auto byte = static_cast<unsigned char>(text[at]);
        const bool is_beyond_ascii =
            byte == 0xc2 && at + 1 < text.size() && static_cast<unsigned char>(text[at + 1]) < 0xa0;
        if (byte < 0x20 || byte == 0x7f || is_beyond_ascii) return true;
    }
    return false;
}

bool is_number(const std::string& text) {
    return !text.empty() && text.size() <= 3 &&
           text.find_first_not_of("0123456789") == std::string::npos;
}

// The same as the program's, by looking for closing braces.
std::string expanded(std::string form, const std::vector<std::string>& arguments) {
    std::string text;
    for (size_t open = 0; (open = form.find('{')) != std::string::npos;) {
        text += form.substr(0, open);
        form.erase(0, open);
        const size_t close = form.find('}');
        const std::string place = close == std::string::npos ? "" : form.substr(1, close - 1);
        if (is_number(place) && std::stoul(place) < arguments.size()) {
            text += arguments[std::stoul(place)];
            form.erase(0, close + 1);
        } else {
            text += '{';
            form.erase(0, 1);
        }
    }
    return text + form;
}

void expect_json_line(const notification& note) {
    const std::string line = json_line(note);
    fuzz::expect(!line.empty() && line.find('\n') == line.size() - 1, "JSON is one line");
    const json_ptr parsed(json_loadb(line.data(), line.size(), 0, nullptr), json_decref);
    fuzz::expect(json_object_size(parsed.get()) == 6, "JSON parses back");
    const char* told = json_string_value(json_object_get(parsed.get(), "text"));
    fuzz::expect(told != nullptr, "JSON has the text");
    fuzz::expect(!is_utf8(note.text) || told == note.text, "the text parses back");
    const char* level = json_string_value(json_object_get(parsed.get(), "level"));
    fuzz::expect(level != nullptr && (!is_utf8(note.level) || std::string(level) == note.level),
                 "the other words parse back");
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::input in(data, size);
    const std::string form = in.line();
    std::vector<std::string> arguments;
    while (!in.is_empty()) arguments.push_back(in.line());
    std::vector<char*> words;
    words.reserve(arguments.size());
    for (std::string& argument : arguments) words.push_back(argument.data());

    notification note;
    note.application = note.category = note.message_id = note.level =
        words.empty() ? "" : words.back();
    note.text = expand(form, words);
    fuzz::expect(note.text == expanded(form, arguments), "each place has its argument, once");
    const std::string line = log_line(note);
    fuzz::expect(!has_control_character(line), "no control character reaches the log");
    fuzz::expect(is_utf8(line), "the log's line is UTF-8");
    fuzz::expect(!is_utf8(note.text) || has_control_character(note.text) || line == note.text,
                 "a plain text stays as it is");
    expect_json_line(note);
    return 0;
}
