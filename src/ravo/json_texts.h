// Parsing JSON when memory may run out.
//
// Jansson's parser does not notice when the buffer for a text's characters cannot grow: it drops
// some, and goes on behind the end. So it works in a block that is had before it begins, and what
// it has made is copied, which fails or is whole.
#ifndef JSON_TEXTS_H
#define JSON_TEXTS_H

#include <cstddef>

#include "json_ptr.h"

// All of Jansson's allocations of this thread, for its lifetime, but for those while it is paused
// and, as usual from malloc(), those for which a text longer than was said leaves no room. What
// lies in the block goes with it.
class json_workspace {
  public:
    // For a text of so many bytes.
    explicit json_workspace(size_t text_size);
    ~json_workspace();
    json_workspace(const json_workspace&) = delete;
    json_workspace& operator=(const json_workspace&) = delete;

    // False, with errno, when there is no memory.
    bool is_ready() const { return block != nullptr; }
    void pause();

    void* take(size_t size);
    bool contains(const void* place) const;

  private:
    size_t size;
    char* const block;
    size_t used = 0;
};

// The document that parse() makes of a text of so many bytes, which is null when it makes none or,
// with errno ENOMEM, when there is no memory.
template <class Parse>
json_ptr parse_json(size_t text_size, Parse parse) {
    json_workspace workspace(text_size);
    if (!workspace.is_ready()) return nullptr;
    const json_ptr document(parse());
    workspace.pause();
    return json_ptr(json_deep_copy(document.get()));
}

// A text as a document, as json_loads() without flags reads it.
json_ptr parse_text(const char* text);

// The document as text, as json_dumps() without flags makes it; null when there is no memory.
json_text dump_json(const json_t* document);

#endif  // JSON_TEXTS_H
