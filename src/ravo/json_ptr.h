// Owners of what Jansson hands out.
#ifndef JSON_PTR_H
#define JSON_PTR_H

#include <jansson.h>

#include <cstdlib>
#include <memory>

struct json_deleter {
    void operator()(json_t* json) const { json_decref(json); }
};
using json_ptr = std::unique_ptr<json_t, json_deleter>;

struct json_text_deleter {
    void operator()(char* text) const { free(text); }
};
using json_text = std::unique_ptr<char, json_text_deleter>;  // what json_dumps() makes

#endif  // JSON_PTR_H
