// JsonValue: a small JSON tree to build and print documents with.
#include "json.h"

#include <charconv>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "json_ptr.h"

namespace {

constexpr size_t leaf_flags =
    JSON_COMPACT | JSON_ENSURE_ASCII | JSON_ENCODE_ANY | JSON_REAL_PRECISION(6);
static_assert(leaf_flags == 12896);

// Larger than any double with six decimals.
constexpr size_t double_text_size = 512;

template <class Payload>
Payload& payload(const JsonValue& node) {
    return *static_cast<Payload*>(node.value);
}

template <class Payload>
void set(JsonValue& node, JsonValue::Type type, Payload v) {
    if (node.type == type) {
        payload<Payload>(node) = std::move(v);
        return;
    }
    auto fresh = std::make_unique<Payload>(std::move(v));
    node.destroy();
    node.type = type;
    node.value = fresh.release();
}

JsonValue::JsonArray& as_array(JsonValue& node) {
    if (node.type != JsonValue::ARRAY_TYPE) {
        set(node, JsonValue::ARRAY_TYPE, JsonValue::JsonArray());
    }
    return payload<JsonValue::JsonArray>(node);
}

JsonValue::JsonObject& as_object(JsonValue& node) {
    if (node.type != JsonValue::OBJECT_TYPE) {
        set(node, JsonValue::OBJECT_TYPE, JsonValue::JsonObject());
    }
    return payload<JsonValue::JsonObject>(node);
}

template <class Payload>
void free_payload(const JsonValue& node) {
    delete &payload<Payload>(node);
}

// --- Text ---------------------------------------------------------------------------------------

// Six digits: decimals for a fixed format, significant ones for the general one. The same digits as
// printf and streams write, whatever the program's locale is.
std::string double_text(double v, std::chars_format format) {
    char text[double_text_size];
    return {text, std::to_chars(text, text + sizeof text, v, format, 6).ptr};
}

std::string leaf_text(const json_t* leaf) {
    const json_text text(json_dumps(leaf, leaf_flags));
    return text ? text.get() : "";
}

std::string quoted(const std::string& text) { return '"' + escape_json(text) + '"'; }

void write(const JsonValue& node, std::chars_format doubles, std::string& out);

void write_array(const JsonValue& node, std::chars_format doubles, std::string& out) {
    out += '[';
    std::string_view separator;
    for (const JsonValue* element : payload<JsonValue::JsonArray>(node)) {
        out += separator;
        write(*element, doubles, out);
        separator = ",";
    }
    out += ']';
}

void write_object(const JsonValue& node, std::chars_format doubles, std::string& out) {
    out += '{';
    std::string_view separator;
    for (const auto& [key, member] : payload<JsonValue::JsonObject>(node)) {
        out.append(separator).append(quoted(key)).append(":");
        write(*member, doubles, out);
        separator = ",";
    }
    out += '}';
}

void write(const JsonValue& node, std::chars_format doubles, std::string& out) {
    switch (node.type) {
        case JsonValue::NULL_TYPE:
            out += "null";
            break;
        case JsonValue::ARRAY_TYPE:
            write_array(node, doubles, out);
            break;
        case JsonValue::OBJECT_TYPE:
            write_object(node, doubles, out);
            break;
        case JsonValue::INT32_TYPE:
            out += std::to_string(payload<int>(node));
            break;
        case JsonValue::UINT32_TYPE:
            out += std::to_string(payload<unsigned int>(node));
            break;
        case JsonValue::INT64_TYPE:
            out += std::to_string(payload<long>(node));
            break;
        case JsonValue::UINT64_TYPE:
            out += std::to_string(payload<unsigned long>(node));
            break;
        case JsonValue::DOUBLE_TYPE:
            out += double_text(payload<double>(node), doubles);
            break;
        case JsonValue::STRING_TYPE:
            out += quoted(payload<std::string>(node));
            break;
        case JsonValue::JSON_T_TYPE:
            out += leaf_text(static_cast<const json_t*>(node.value));
            break;
        case JsonValue::BOOLEAN_TYPE:
            out += payload<bool>(node) ? "true" : "false";
            break;
    }
}

}  // namespace

// --- Payload ------------------------------------------------------------------------------------

JsonValue& JsonValue::operator=(bool v) {
    set(*this, BOOLEAN_TYPE, v);
    return *this;
}
JsonValue& JsonValue::operator=(const char* v) {
    return *this = std::string(v != nullptr ? v : "");
}
JsonValue& JsonValue::operator=(double v) {
    set(*this, DOUBLE_TYPE, v);
    return *this;
}
JsonValue& JsonValue::operator=(json_t* v) {
    if (type != JSON_T_TYPE) destroy();
    type = v != nullptr ? JSON_T_TYPE : NULL_TYPE;
    value = v;
    return *this;
}
JsonValue& JsonValue::operator=(int v) {
    set(*this, INT32_TYPE, v);
    return *this;
}
JsonValue& JsonValue::operator=(unsigned int v) {
    set(*this, UINT32_TYPE, v);
    return *this;
}
JsonValue& JsonValue::operator=(long v) {
    set(*this, INT64_TYPE, v);
    return *this;
}
JsonValue& JsonValue::operator=(unsigned long v) {
    set(*this, UINT64_TYPE, v);
    return *this;
}
JsonValue& JsonValue::operator=(std::string v) {
    set(*this, STRING_TYPE, std::move(v));
    return *this;
}

void JsonValue::destroy() {
    erase();
    switch (type) {
        case NULL_TYPE:
            break;
        case ARRAY_TYPE:
            free_payload<JsonArray>(*this);
            break;
        case OBJECT_TYPE:
            free_payload<JsonObject>(*this);
            break;
        case INT32_TYPE:
            free_payload<int>(*this);
            break;
        case UINT32_TYPE:
            free_payload<unsigned int>(*this);
            break;
        case INT64_TYPE:
            free_payload<long>(*this);
            break;
        case UINT64_TYPE:
            free_payload<unsigned long>(*this);
            break;
        case DOUBLE_TYPE:
            free_payload<double>(*this);
            break;
        case STRING_TYPE:
            free_payload<std::string>(*this);
            break;
        case JSON_T_TYPE:
            json_decref(static_cast<json_t*>(value));
            break;
        case BOOLEAN_TYPE:
            free_payload<bool>(*this);
            break;
    }
    type = NULL_TYPE;
    value = nullptr;
}

// --- Children -----------------------------------------------------------------------------------

JsonValue& JsonValue::operator[](std::string key) {
    auto fresh = std::make_unique<JsonValue>();
    JsonValue*& member = as_object(*this)[std::move(key)];
    delete member;
    return *(member = fresh.release());
}

JsonValue* JsonValue::operator[](size_t idx) {
    const JsonArray& elements = as_array(*this);
    return idx < elements.size() ? elements[idx] : nullptr;
}

void JsonValue::append(JsonValue* val) {
    as_array(*this).push_back(val != nullptr ? val : new JsonValue);
}

void JsonValue::erase(size_t idx) {
    if (type != ARRAY_TYPE) return;
    auto& elements = payload<JsonArray>(*this);
    if (idx >= elements.size()) return;
    delete elements[idx];
    elements.erase(elements.begin() + static_cast<ptrdiff_t>(idx));
}

void JsonValue::erase(const std::string& key) {
    if (type != OBJECT_TYPE) return;
    auto& members = payload<JsonObject>(*this);
    const auto member = members.find(key);
    if (member == members.end()) return;
    delete member->second;
    members.erase(member);
}

void JsonValue::erase() {
    if (type == ARRAY_TYPE) {
        auto& elements = payload<JsonArray>(*this);
        while (!elements.empty()) {
            delete elements.back();
            elements.pop_back();
        }
    } else if (type == OBJECT_TYPE) {
        auto& members = payload<JsonObject>(*this);
        for (const auto& [key, member] : members) delete member;
        members.clear();
    }
}

// --- Text ---------------------------------------------------------------------------------------

void JsonValue::print(FILE* f) const {
    std::string text;
    write(*this, std::chars_format::fixed, text);
    (void)fwrite(text.data(), 1, text.size(), f);
}

void JsonValue::toString(std::string& result) const {
    write(*this, std::chars_format::general, result);
}

std::string escape_json(const std::string& s) {
    std::string out;
    for (const char c : s) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\b':
                out += "\\b";
                break;
            case '\f':
                out += "\\f";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (static_cast<unsigned char>(c) < 0x20) {
                    char code[8];
                    (void)snprintf(code, sizeof code, "\\u%04x", static_cast<unsigned>(c));
                    out += code;
                } else {
                    out += c;
                }
        }
    }
    return out;
}
