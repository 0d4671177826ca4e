// The JSON tree: what it prints parses back to what was put in.
//
// Input: commands that build a tree, each a byte, with their values behind them.
#include <jansson.h>

#include <cmath>
#include <memory>

#include "fuzz_target.h"
#include "json.h"

namespace {

using json_ptr = std::unique_ptr<json_t, void (*)(json_t*)>;

constexpr int max_depth = 40;
constexpr int max_nodes = 400;

bool is_utf8(const std::string& text) {
    return json_ptr(json_stringn(text.data(), text.size()), json_decref) != nullptr;
}

// Builds the same document twice: the tree, and a value of the parser's library to hold it against.
class builder {
  public:
    explicit builder(fuzz::input& commands) : in(commands) {}

    // Puts a value into the node. Returns its twin, which the caller releases.
    json_t* fill(JsonValue& node, int depth = 0) {
        ++nodes;
        switch (in.below(depth < max_depth && nodes < max_nodes ? 11 : 9)) {
            case 0:
                node.destroy();
                return json_null();
            case 1:
                return with(node, in.byte() % 2 == 0);
            case 2:
                return with_integer(node, in.number<int>());
            case 3:
                return with_integer(node, in.number<unsigned int>());
            case 4:
                return with_integer(node, in.number<long>());
            case 5:
                // Above this the parser's library has no integers.
                return with_integer(node, in.number<unsigned long>() >> 1);
            case 6:
                return with(node, static_cast<double>(in.number<int64_t>()) / 4096);
            case 7:
                return with(node, in.text());
            case 8:
                return with_leaf(node, in.text());
            case 9:
                return with_elements(node, depth);
            default:
                return with_members(node, depth);
        }
    }

    bool is_all_utf8() const { return all_utf8; }

  private:
    json_t* with(JsonValue& node, bool value) {
        node = value;
        return json_boolean(value);
    }
    template <class Integer>
    json_t* with_integer(JsonValue& node, Integer value) {
        node = value;
        return json_integer(static_cast<json_int_t>(value));
    }
    json_t* with(JsonValue& node, double value) {
        node = value;
        return json_real(value);
    }
    json_t* with(JsonValue& node, const std::string& value) {
        node = value;
        return text(value);
    }
    json_t* with_leaf(JsonValue& node, const std::string& value) {
        json_t* leaf = json_stringn(value.data(), value.size());
        if (leaf == nullptr) leaf = json_integer(7);
        node.destroy();
        node = json_incref(leaf);
        return leaf;
    }
    json_t* with_elements(JsonValue& node, int depth) {
        json_t* twin = json_array();
        node.destroy();
        (void)node[0];  // an empty array
        for (int left = in.below(8); left > 0; --left) {
            auto* element = new JsonValue;
            node.append(element);
            (void)json_array_append_new(twin, fill(*element, depth + 1));
        }
        const size_t gone = in.byte();
        node.erase(gone);
        (void)json_array_remove(twin, gone);
        return twin;
    }
    json_t* with_members(JsonValue& node, int depth) {
        json_t* twin = json_object();
        node.destroy();
        node.erase("");
        (void)node["gone"];  // an object
        node.erase("gone");
        for (int left = in.below(8); left > 0; --left) {
            // The parser's library has no member names with a zero byte.
            const std::string key = in.line();
            JsonValue& member = node[key];
            all_utf8 = all_utf8 && is_utf8(key);
            (void)json_object_set_new(twin, key.c_str(), fill(member, depth + 1));
        }
        return twin;
    }
    json_t* text(const std::string& value) {
        json_t* twin = json_stringn(value.data(), value.size());
        all_utf8 = all_utf8 && twin != nullptr;
        return twin != nullptr ? twin : json_null();
    }

    fuzz::input& in;
    int nodes = 0;
    bool all_utf8 = true;
};

// Numbers are printed with six digits.
bool is_close(double printed, double value) {
    return std::abs(printed - value) <= std::max(1e-6, std::abs(value) * 1e-5);
}

bool is_same(const json_t* parsed, const json_t* twin);

bool has_same_elements(const json_t* parsed, const json_t* twin) {
    bool same = json_array_size(parsed) == json_array_size(twin);
    for (size_t n = 0; same && n < json_array_size(twin); ++n) {
        same = is_same(json_array_get(parsed, n), json_array_get(twin, n));
    }
    return same;
}

bool has_same_members(const json_t* parsed, json_t* twin) {
    const char* key = nullptr;
    json_t* member = nullptr;
    bool same = json_object_size(parsed) == json_object_size(twin);
    json_object_foreach(twin, key, member) {
        same = same && is_same(json_object_get(parsed, key), member);
    }
    return same;
}

bool is_same(const json_t* parsed, const json_t* twin) {
    if (json_is_real(twin)) {
        return json_is_number(parsed) && is_close(json_number_value(parsed), json_real_value(twin));
    }
    if (parsed == nullptr || json_typeof(parsed) != json_typeof(twin)) return false;
    if (json_is_array(twin)) return has_same_elements(parsed, twin);
    if (json_is_object(twin)) return has_same_members(parsed, const_cast<json_t*>(twin));
    return json_equal(parsed, twin) == 1;
}

std::string printed(const JsonValue& tree) {
    char* text = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&text, &size);
    tree.print(out);
    (void)fclose(out);
    std::string copy(text, size);
    free(text);
    return copy;
}

void expect_parses_back(const std::string& text, const json_t* twin) {
    const json_ptr parsed(
        json_loadb(text.data(), text.size(), JSON_DECODE_ANY | JSON_ALLOW_NUL, nullptr),
        json_decref);
    fuzz::expect(is_same(parsed.get(), twin), "what is printed parses back");
}

// Quotes, backslashes and control characters never stand bare in an escaped text.
void expect_escaped(const std::string& text) {
    const std::string escaped = escape_json(text);
    for (size_t at = 0; at < escaped.size(); ++at) {
        fuzz::expect(static_cast<unsigned char>(escaped[at]) >= 32, "no control character is left");
        fuzz::expect(escaped[at] != '"', "no quote is left");
        if (escaped[at] == '\\') fuzz::expect(++at < escaped.size(), "no backslash is left");
    }
    if (!is_utf8(text)) return;
    const json_ptr twin(json_stringn(text.data(), text.size()), json_decref);
    expect_parses_back('"' + escaped + '"', twin.get());
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    expect_escaped(std::string(reinterpret_cast<const char*>(data), size));
    fuzz::input in(data, size);
    builder build(in);
    JsonValue tree;
    const json_ptr twin(build.fill(tree), json_decref);
    std::string text;
    tree.toString(text);
    const std::string streamed = printed(tree);
    if (!build.is_all_utf8()) return 0;
    expect_parses_back(text, twin.get());
    expect_parses_back(streamed, twin.get());
    return 0;
}
