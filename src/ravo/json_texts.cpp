// JSON texts when memory may run out.
#include "json_texts.h"

#include <cstdlib>
#include <cstring>

namespace {

// More than Jansson takes for each byte of a text: the most is for one that is all brackets.
constexpr size_t bytes_for_each = 128;
constexpr size_t bytes_to_begin = 4096;

constinit thread_local json_workspace* current = nullptr;
constinit thread_local bool is_paused = false;

void* take(size_t size) {
    return current != nullptr && !is_paused ? current->take(size) : malloc(size);
}

void give_back(void* place) {
    if (current == nullptr || !current->contains(place)) free(place);
}

// Before main, since Jansson must not have given out anything yet.
[[gnu::constructor]] void set_functions() { json_set_alloc_funcs(take, give_back); }

}  // namespace

json_workspace::json_workspace(size_t text_size)
    : size(bytes_to_begin + bytes_for_each * text_size), block(static_cast<char*>(malloc(size))) {
    current = this;
    is_paused = false;
}

json_workspace::~json_workspace() {
    current = nullptr;
    free(block);
}

void json_workspace::pause() { is_paused = true; }

void* json_workspace::take(size_t wanted) {
    constexpr size_t alignment = alignof(std::max_align_t);
    const size_t step = (wanted + alignment - 1) / alignment * alignment;
    if (step > size - used) return malloc(wanted);  // the text is longer than was said
    void* place = block + used;
    used += step;
    return place;
}

bool json_workspace::contains(const void* place) const {
    const auto* at = static_cast<const char*>(place);
    return block != nullptr && at >= block && at < block + size;
}

json_ptr parse_text(const char* text) {
    return parse_json(strlen(text), [text] { return json_loads(text, 0, nullptr); });
}

json_text dump_json(const json_t* document) {
    const size_t size = json_dumpb(document, nullptr, 0, 0);
    if (size == 0) return nullptr;
    json_text text(static_cast<char*>(malloc(size + 1)));
    if (!text || json_dumpb(document, text.get(), size, 0) != size) return nullptr;
    text.get()[size] = '\0';
    return text;
}
