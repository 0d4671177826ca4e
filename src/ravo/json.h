// JsonValue: a small JSON tree to build and print documents with.
//
// A node owns its payload, and an array or an object owns its child nodes, which live on the heap
// and are held by pointer. A node can hold a whole jansson value as a leaf; that is how documents
// that were parsed elsewhere stand in a tree. Members are written through operator[] and are not
// read through it.
//
// A tree belongs to one thread at a time. Nothing here blocks, but for print(). Destroying and
// printing recurse: the depth of a tree is the caller's to bound.
#ifndef JSON_H
#define JSON_H

#include <jansson.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

class JsonValue {
  public:
    using JsonArray = std::vector<JsonValue*>;
    using JsonObject = std::map<std::string, JsonValue*>;  // ordered by the keys' bytes

    enum Type : uint32_t {
        NULL_TYPE = 0,
        ARRAY_TYPE = 1,    // a JsonArray
        OBJECT_TYPE = 2,   // a JsonObject
        INT32_TYPE = 3,    // an int32_t
        UINT32_TYPE = 4,   // a uint32_t
        INT64_TYPE = 5,    // an int64_t
        UINT64_TYPE = 6,   // a uint64_t
        DOUBLE_TYPE = 7,   // a double
        STRING_TYPE = 8,   // a std::string
        JSON_T_TYPE = 9,   // the json_t itself; the node owns one reference
        BOOLEAN_TYPE = 10  // one byte, 0 or 1
    };

    // Read them, but leave writing to the functions below.
    Type type = NULL_TYPE;
    void* value = nullptr;  // the heap payload of the type; null for NULL_TYPE, and only then

    // A value of any of the nine kinds becomes a node. A null text is an empty one. A json_t passes
    // the caller's reference on, and a null one makes a null node.
    JsonValue() = default;
    JsonValue(bool v) { *this = v; }
    JsonValue(const char* v) { *this = v; }
    JsonValue(double v) { *this = v; }
    JsonValue(json_t* v) { *this = v; }
    JsonValue(int v) { *this = v; }
    JsonValue(unsigned int v) { *this = v; }
    JsonValue(long v) { *this = v; }
    JsonValue(unsigned long v) { *this = v; }
    JsonValue(std::string v) { *this = std::move(v); }

    // The same kinds. A node that has the type already keeps its payload and overwrites it; any
    // other releases what it held. A json_t that is replaced by a json_t is not released: the
    // caller has dropped that reference before.
    JsonValue& operator=(bool v);
    JsonValue& operator=(const char* v);
    JsonValue& operator=(double v);
    JsonValue& operator=(json_t* v);
    JsonValue& operator=(int v);
    JsonValue& operator=(unsigned int v);
    JsonValue& operator=(long v);
    JsonValue& operator=(unsigned long v);
    JsonValue& operator=(std::string v);

    // No other pointer turns into a bool, and no payload gets a second owner.
    template <class Other>
    JsonValue(Other* v) requires(!std::is_same_v<const Other, const char>) = delete;
    template <class Other>
    JsonValue& operator=(Other* v) requires(!std::is_same_v<const Other, const char>) = delete;
    JsonValue(const JsonValue&) = delete;
    JsonValue& operator=(const JsonValue&) = delete;

    ~JsonValue() { destroy(); }

    // Releases the payload, child nodes included, and leaves a null node.
    void destroy();

    // A fresh null node under this key, to be assigned to: `node[key] = value`. What stood there is
    // freed. A node that is no object becomes an empty one first.
    JsonValue& operator[](std::string key);

    // The element, which the array goes on owning; null when there is none at this index. A node
    // that is no array becomes an empty one first.
    JsonValue* operator[](size_t idx);

    // Puts a node made with new at the end; the array owns it from then on. It must not be in this
    // tree already. A null pointer is put there as a null node. A node that is no array becomes an
    // empty one first.
    void append(JsonValue* val);

    // Appends a value of any of the nine kinds.
    template <class Value, class = std::enable_if_t<std::is_constructible_v<JsonValue, Value>>>
    JsonValue& operator<<(Value v) {
        append(new JsonValue(std::move(v)));
        return *this;
    }

    // Frees one element and closes the gap, or one member. Nothing happens when there is none.
    void erase(size_t idx);
    void erase(const std::string& key);

    // Frees all elements or members. The node stays an empty array or object; one of another type
    // stays as it is.
    void erase();

    // Writes the node as JSON without white space. A double has six decimals ("1.500000"), infinite
    // ones and NaN are written as printf does ("inf"), which is no JSON. A leaf that jansson cannot
    // dump is left out. Blocks as writing to f does, and reports no error: see ferror(f).
    void print(FILE* f) const;

    // Appends the same text to result, but a double has up to six significant digits in the
    // shortest form ("1.5").
    void toString(std::string& result) const;
};

static_assert(sizeof(JsonValue) == 16 && offsetof(JsonValue, value) == 8);

// The text with what may not stand in a JSON string escaped: quote, backslash and the bytes below
// 32. Bytes from 127 up and slashes stay as they are.
std::string escape_json(const std::string& s);

#endif  // JSON_H
