// JsonValue: what a node holds and owns, and the text that it becomes. A json_t leaf tells by its
// reference count that it was released; what else is released, and that nothing is twice, is seen
// by the sanitizers' build.
#include "json.h"

#include <gtest/gtest.h>

#include <bit>
#include <cfloat>
#include <climits>
#include <clocale>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <limits>
#include <locale>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "json_texts.h"
#include "support/daemon.h"
#include "support/files.h"

namespace {

using namespace std::string_literals;
using node_ptr = std::unique_ptr<JsonValue>;

// --- Layout and what makes a node ---------------------------------------------------------------

static_assert(sizeof(JsonValue) == 16);
static_assert(offsetof(JsonValue, type) == 0 && offsetof(JsonValue, value) == 8);
static_assert(std::is_same_v<decltype(JsonValue::value), void*>);
static_assert(std::is_standard_layout_v<JsonValue> && !std::is_polymorphic_v<JsonValue>);
static_assert(std::is_same_v<JsonValue::JsonArray, std::vector<JsonValue*>>);
static_assert(std::is_same_v<JsonValue::JsonObject, std::map<std::string, JsonValue*>>);
static_assert(sizeof(bool) == 1 && sizeof(int) == 4 && sizeof(long) == 8);

static_assert(JsonValue::NULL_TYPE == 0 && JsonValue::ARRAY_TYPE == 1);
static_assert(JsonValue::OBJECT_TYPE == 2 && JsonValue::INT32_TYPE == 3);
static_assert(JsonValue::UINT32_TYPE == 4 && JsonValue::INT64_TYPE == 5);
static_assert(JsonValue::UINT64_TYPE == 6 && JsonValue::DOUBLE_TYPE == 7);
static_assert(JsonValue::STRING_TYPE == 8 && JsonValue::JSON_T_TYPE == 9);
static_assert(JsonValue::BOOLEAN_TYPE == 10);

template <class Value>
concept is_streamable = requires(JsonValue& node, Value v) {
    node << v;
};

// Whether a value makes a node in all three ways, or in none of them.
template <class Value>
constexpr bool is_taken = std::is_constructible_v<JsonValue, Value>&&
    std::is_assignable_v<JsonValue&, Value>&& is_streamable<Value>;
template <class Value>
constexpr bool is_refused = !std::is_constructible_v<JsonValue, Value> &&
                            !std::is_assignable_v<JsonValue&, Value> && !is_streamable<Value>;

static_assert(is_taken<bool> && is_taken<double> && is_taken<json_t*> && is_taken<std::string>);
static_assert(is_taken<int> && is_taken<unsigned> && is_taken<long> && is_taken<unsigned long>);
static_assert(is_taken<const char*> && is_taken<char*> && is_taken<const char (&)[4]>);

static_assert(is_refused<void*> && is_refused<const void*> && is_refused<int*>);
static_assert(is_refused<bool*> && is_refused<unsigned char*> && is_refused<volatile char*>);
static_assert(is_refused<const json_t*> && is_refused<std::string*> && is_refused<char**>);
static_assert(is_refused<JsonValue*> && is_refused<const JsonValue*> && is_refused<void (*)()>);
static_assert(is_refused<std::nullptr_t>, "text or json_t?");
static_assert(is_refused<JsonValue&> && is_refused<const JsonValue&> && is_refused<JsonValue&&>);

// --- Nodes to try things on ---------------------------------------------------------------------

std::string text_of(const JsonValue& node) {
    std::string text;
    node.toString(text);
    return text;
}

std::string printed(const JsonValue& node) {
    FILE* f = fopen("/tmp/printed", "we");
    node.print(f);
    EXPECT_EQ(fclose(f), 0);
    return read_file("/tmp/printed");
}

template <class Payload>
Payload& payload(const JsonValue& node) {
    return *static_cast<Payload*>(node.value);
}
size_t size_of_array(const JsonValue& node) { return payload<JsonValue::JsonArray>(node).size(); }
size_t size_of_object(const JsonValue& node) { return payload<JsonValue::JsonObject>(node).size(); }

void expect_node(const JsonValue& node, JsonValue::Type type, const std::string& text) {
    EXPECT_EQ(node.type, type);
    EXPECT_EQ(node.value == nullptr, node.type == JsonValue::NULL_TYPE);
    EXPECT_EQ(text_of(node), text);
}

// A value and the ways to make a node of it.
struct kind {
    JsonValue::Type type;
    std::string text;
    std::function<node_ptr()> construct;
    std::function<void(JsonValue&)> assign;
    std::function<void(JsonValue&)> stream;
};

template <class Value>
kind kind_of(Value v, JsonValue::Type type, const std::string& text) {
    return {type, text, [v] { return std::make_unique<JsonValue>(v); },
            [v](JsonValue& node) { EXPECT_EQ(&(node = v), &node); },
            [v](JsonValue& node) { EXPECT_EQ(&(node << v), &node); }};
}

// Two values of each kind. These json_t are jansson's constants, whose references are not counted.
std::vector<kind> kinds() {
    const std::string long_text(300, 'x');
    return {
        kind_of(true, JsonValue::BOOLEAN_TYPE, "true"),
        kind_of(false, JsonValue::BOOLEAN_TYPE, "false"),
        kind_of("a \"text\"", JsonValue::STRING_TYPE, R"("a \"text\"")"),
        kind_of("", JsonValue::STRING_TYPE, R"("")"),
        kind_of(1.5, JsonValue::DOUBLE_TYPE, "1.5"),
        kind_of(-0.25, JsonValue::DOUBLE_TYPE, "-0.25"),
        kind_of(json_true(), JsonValue::JSON_T_TYPE, "true"),
        kind_of(json_null(), JsonValue::JSON_T_TYPE, "null"),
        kind_of(INT_MIN, JsonValue::INT32_TYPE, "-2147483648"),
        kind_of(INT_MAX, JsonValue::INT32_TYPE, "2147483647"),
        kind_of(0U, JsonValue::UINT32_TYPE, "0"),
        kind_of(UINT_MAX, JsonValue::UINT32_TYPE, "4294967295"),
        kind_of(LONG_MIN, JsonValue::INT64_TYPE, "-9223372036854775808"),
        kind_of(LONG_MAX, JsonValue::INT64_TYPE, "9223372036854775807"),
        kind_of(0UL, JsonValue::UINT64_TYPE, "0"),
        kind_of(ULONG_MAX, JsonValue::UINT64_TYPE, "18446744073709551615"),
        kind_of("string\n"s, JsonValue::STRING_TYPE, R"("string\n")"),
        kind_of(long_text, JsonValue::STRING_TYPE, '"' + long_text + '"'),
    };
}

// A node of any type, and how to make it of a null node.
struct state {
    JsonValue::Type type;
    std::string text;
    std::function<void(JsonValue&)> fill;
};

std::vector<state> states() {
    std::vector<state> list = {
        {JsonValue::NULL_TYPE, "null", [](JsonValue&) {}},
        {JsonValue::ARRAY_TYPE, R"([1,["a"],null])",
         [](JsonValue& node) {
             node << 1;
             node.append(new JsonValue);
             *node[1] << "a";
             node.append(nullptr);
         }},
        {JsonValue::OBJECT_TYPE, R"({"a":1,"b":{"c":null}})",
         [](JsonValue& node) {
             node["a"] = 1;
             node["b"]["c"];
         }},
    };
    for (const kind& k : kinds()) list.push_back({k.type, k.text, k.assign});
    return list;
}

// Calls check with a node of each type in turn, told by state.
void for_each_state(const std::function<void(JsonValue&, const state&)>& check) {
    for (const state& s : states()) {
        SCOPED_TRACE(s.text);
        JsonValue node;
        s.fill(node);
        expect_node(node, s.type, s.text);
        check(node, s);
    }
}

// A counted leaf. The test holds one reference, until its end.
class leaf {
  public:
    leaf() = default;
    ~leaf() { json_decref(json); }
    leaf(const leaf&) = delete;
    leaf& operator=(const leaf&) = delete;

    // One more reference, to be passed on.
    json_t* passed() const { return json_incref(json); }
    // The references that others hold.
    size_t held() const { return json->refcount - 1; }
    json_t* const json = json_pack("{s:i}", "n", 7);
};

// --- Constructors, assignment, streaming --------------------------------------------------------

TEST(json_value, default_node_is_null) { expect_node(JsonValue(), JsonValue::NULL_TYPE, "null"); }

TEST(json_value, each_kind_constructs_a_node_of_its_type) {
    for (const kind& k : kinds()) expect_node(*k.construct(), k.type, k.text);
}

TEST(json_value, payload_is_the_value_on_the_heap) {
    EXPECT_EQ(payload<int32_t>(JsonValue(-5)), -5);
    EXPECT_EQ(payload<uint32_t>(JsonValue(UINT_MAX)), UINT32_MAX);
    EXPECT_EQ(payload<int64_t>(JsonValue(LONG_MIN)), INT64_MIN);
    EXPECT_EQ(payload<uint64_t>(JsonValue(ULONG_MAX)), UINT64_MAX);
    EXPECT_EQ(payload<double>(JsonValue(0.1)), 0.1);
    EXPECT_EQ(payload<std::string>(JsonValue("a\0b"s)), "a\0b"s);
    EXPECT_EQ(payload<std::string>(JsonValue("text")), "text");
    EXPECT_EQ(payload<unsigned char>(JsonValue(true)), 1);
    EXPECT_EQ(payload<unsigned char>(JsonValue(false)), 0);
}

TEST(json_value, text_is_copied) {
    char text[] = "text";
    const JsonValue node(text);
    text[0] = 'X';
    expect_node(node, JsonValue::STRING_TYPE, R"("text")");
}

TEST(json_value, null_text_is_an_empty_one) {
    const char* none = nullptr;
    JsonValue node(none);
    expect_node(node, JsonValue::STRING_TYPE, R"("")");
    node = 1;
    node = none;
    expect_node(node, JsonValue::STRING_TYPE, R"("")");
    node = "text";
    node = none;
    expect_node(node, JsonValue::STRING_TYPE, R"("")");
    JsonValue list;
    list << none;
    expect_node(list, JsonValue::ARRAY_TYPE, R"([""])");
}

TEST(json_value, null_json_t_makes_a_null_node) {
    json_t* none = nullptr;
    expect_node(JsonValue(none), JsonValue::NULL_TYPE, "null");
    for_each_state([none](JsonValue& node, const state&) {
        node = none;
        expect_node(node, JsonValue::NULL_TYPE, "null");
    });
    JsonValue list;
    list << none;
    expect_node(*list[0], JsonValue::NULL_TYPE, "null");
}

TEST(json_value, assignment_keeps_a_payload_of_the_same_type_and_replaces_others) {
    for (const kind& k : kinds()) {
        for_each_state([&k](JsonValue& node, const state& s) {
            const void* before = node.value;
            k.assign(node);
            expect_node(node, k.type, k.text);
            if (s.type == k.type && k.type != JsonValue::JSON_T_TYPE) {
                EXPECT_EQ(node.value, before);
            }
        });
    }
}

TEST(json_value, each_kind_is_appended_by_streaming) {
    for (const kind& k : kinds()) {
        for_each_state([&k](JsonValue& node, const state& s) {
            k.stream(node);
            const bool was_array = s.type == JsonValue::ARRAY_TYPE;
            const std::string before = was_array ? s.text.substr(0, s.text.size() - 1) + "," : "[";
            expect_node(node, JsonValue::ARRAY_TYPE, before + k.text + "]");
            expect_node(*node[size_of_array(node) - 1], k.type, k.text);
        });
    }
}

TEST(json_value, streams_in_a_row) {
    JsonValue node;
    node["list"] << 1 << "two" << 3.5 << true << json_null() << "six"s << 7UL << -8L << 9U;
    EXPECT_EQ(text_of(node), R"({"list":[1,"two",3.5,true,null,"six",7,-8,9]})");
}

TEST(json_value, assigning_a_part_of_itself_is_safe) {
    const std::string long_text(100, 'x');
    JsonValue node(long_text + "tail");
    node = payload<std::string>(node).c_str() + 100;
    EXPECT_EQ(text_of(node), R"("tail")");
    node = payload<std::string>(node);
    EXPECT_EQ(text_of(node), R"("tail")");

    JsonValue list;
    list << long_text;
    list = payload<std::string>(*list[0]).c_str();
    EXPECT_EQ(text_of(list), '"' + long_text + '"');

    JsonValue object;
    object["a"] = long_text;
    object = payload<std::string>(*payload<JsonValue::JsonObject>(object)["a"]);
    EXPECT_EQ(text_of(object), '"' + long_text + '"');
}

// --- A json_t's references ----------------------------------------------------------------------

TEST(json_t_node, holds_the_json_t_itself_and_takes_the_reference_over) {
    const leaf l;
    const JsonValue constructed(l.passed());
    EXPECT_EQ(constructed.value, l.json);
    EXPECT_EQ(l.held(), 1U);
    JsonValue assigned(5);
    assigned = l.passed();
    EXPECT_EQ(assigned.value, l.json);
    EXPECT_EQ(l.held(), 2U);
    JsonValue list;
    list << l.passed();
    EXPECT_EQ(list[0]->value, l.json);
    EXPECT_EQ(l.held(), 3U);
}

TEST(json_t_node, drops_one_reference_at_its_end) {
    const leaf l;
    {
        JsonValue destroyed(l.passed());
        const JsonValue left(l.passed());
        destroyed.destroy();
        EXPECT_EQ(l.held(), 1U);
        destroyed.destroy();
        EXPECT_EQ(l.held(), 1U) << "once only";
    }
    EXPECT_EQ(l.held(), 0U);
}

TEST(json_t_node, replaced_by_a_json_t_is_not_released) {
    const leaf old;
    const leaf fresh;
    JsonValue node(old.passed());
    node = fresh.passed();
    EXPECT_EQ(node.value, fresh.json);
    EXPECT_EQ(old.held(), 1U);
    EXPECT_EQ(fresh.held(), 1U);
    json_decref(old.json);  // as the caller has to, at the latest now
    node = fresh.json;
    EXPECT_EQ(fresh.held(), 1U) << "the same one again";
}

TEST(json_t_node, replaced_by_a_null_json_t_is_not_released) {
    const leaf old;
    JsonValue node(old.passed());
    node = static_cast<json_t*>(nullptr);
    expect_node(node, JsonValue::NULL_TYPE, "null");
    EXPECT_EQ(old.held(), 1U);
    json_decref(old.json);
}

TEST(json_t_node, replaced_by_another_type_is_released) {
    for (const kind& k : kinds()) {
        if (k.type == JsonValue::JSON_T_TYPE) continue;
        const leaf old;
        JsonValue node(old.passed());
        k.assign(node);
        expect_node(node, k.type, k.text);
        EXPECT_EQ(old.held(), 0U) << k.text;
    }
}

TEST(json_t_node, that_becomes_an_array_or_an_object_is_released) {
    const std::function<void(JsonValue&)> ways[] = {
        [](JsonValue& node) { node["key"]; },
        [](JsonValue& node) { EXPECT_EQ(node[0], nullptr); },
        [](JsonValue& node) { node.append(new JsonValue(1)); },
        [](JsonValue& node) { node << 1; },
    };
    for (const auto& change : ways) {
        const leaf old;
        JsonValue node(old.passed());
        change(node);
        EXPECT_EQ(old.held(), 0U);
    }
}

TEST(json_t_node, takes_the_place_of_a_tree_and_releases_it) {
    const leaf inner;
    const leaf outer;
    JsonValue node;
    node["a"]["b"] << inner.passed();
    node = outer.passed();
    EXPECT_EQ(inner.held(), 0U);
    EXPECT_EQ(outer.held(), 1U);
    EXPECT_EQ(text_of(node), R"({"n":7})");
}

// --- Destroy ------------------------------------------------------------------------------------

TEST(json_value, destroy_leaves_a_null_node_that_works_again) {
    for_each_state([](JsonValue& node, const state& s) {
        for (int time = 1; time <= 2; ++time) {
            node.destroy();
            expect_node(node, JsonValue::NULL_TYPE, "null");
        }
        s.fill(node);
        expect_node(node, s.type, s.text);
    });
}

TEST(json_value, destroy_releases_every_node_of_a_tree) {
    const leaf l;
    JsonValue root;
    for (const char* key : {"a", "b", "c"}) {
        JsonValue& member = root[key];
        member << l.passed() << "text" << 1.5;
        member.append(new JsonValue);
        (*member[3])["deep"]["deeper"] << l.passed();
    }
    EXPECT_EQ(l.held(), 6U);
    root.destroy();
    EXPECT_EQ(l.held(), 0U);
}

TEST(json_value, destroy_releases_a_tree_of_a_thousand_levels) {
    const leaf l;
    {
        JsonValue root;
        JsonValue* node = &root;
        for (int level = 0; level < 500; ++level) {
            node = &(*node)["k"];
            node->append(nullptr);
            node = (*node)[0];
        }
        *node = l.passed();
        EXPECT_EQ(text_of(root).size(), 500 * R"({"k":[]})"s.size() + R"({"n":7})"s.size());
    }
    EXPECT_EQ(l.held(), 0U);
}

// --- Members ------------------------------------------------------------------------------------

TEST(json_value, key_makes_any_node_an_object) {
    for_each_state([](JsonValue& node, const state& s) {
        const JsonValue& fresh = node["key"];
        expect_node(fresh, JsonValue::NULL_TYPE, "null");
        const bool was_object = s.type == JsonValue::OBJECT_TYPE;
        EXPECT_EQ(size_of_object(node), was_object ? 3U : 1U);
        expect_node(node, JsonValue::OBJECT_TYPE,
                    was_object ? R"({"a":1,"b":{"c":null},"key":null})" : R"({"key":null})");
    });
}

TEST(json_value, second_assignment_to_a_member_leaves_one_with_the_last_value) {
    JsonValue node;
    node["a"] = 1;
    node["a"] = 2;
    EXPECT_EQ(size_of_object(node), 1U);
    EXPECT_EQ(text_of(node), R"({"a":2})");
}

TEST(json_value, key_that_exists_gets_a_fresh_null_node_and_frees_the_old_one) {
    const leaf l;
    JsonValue node;
    node["other"] = 1;
    node["key"] << l.passed();
    const JsonValue& fresh = node["key"];
    EXPECT_EQ(l.held(), 0U);
    expect_node(fresh, JsonValue::NULL_TYPE, "null");
    EXPECT_EQ(text_of(node), R"({"key":null,"other":1})") << "it cannot be read this way";
}

TEST(json_value, key_may_be_a_part_of_the_node) {
    const std::string long_text(100, 'x');
    JsonValue node(long_text);
    node[payload<std::string>(node)] = 1;
    EXPECT_EQ(text_of(node), "{\"" + long_text + "\":1}");
    const std::string& own_key = payload<JsonValue::JsonObject>(node).begin()->first;
    node[own_key] = 2;
    EXPECT_EQ(text_of(node), "{\"" + long_text + "\":2}");
    node.erase(own_key);
    expect_node(node, JsonValue::OBJECT_TYPE, "{}");

    JsonValue child;
    child["a"] = "a";
    child.erase(payload<std::string>(*payload<JsonValue::JsonObject>(child)["a"]));
    expect_node(child, JsonValue::OBJECT_TYPE, "{}");
}

TEST(json_value, members_stand_in_the_order_of_their_keys_bytes) {
    JsonValue node;
    for (const std::string& key :
         {"\xff"s, "z"s, "\x80"s, "ab"s, "Z"s, ""s, "a\0b"s, "a"s, "\x7f"s, "10"s, "9"s}) {
        node[key] = 0;
    }
    EXPECT_EQ(
        text_of(node),
        "{\"\":0,\"10\":0,\"9\":0,\"Z\":0,\"a\":0,\"a\\u0000b\":0,\"ab\":0,\"z\":0,\"\x7f\":0,"
        "\"\x80\":0,\"\xff\":0}");
    EXPECT_EQ(printed(node), text_of(node));
}

// --- Elements -----------------------------------------------------------------------------------

TEST(json_value, index_reads_the_elements_and_is_null_beyond_them) {
    JsonValue node;
    node << "a"
         << "b";
    JsonValue* const added = new JsonValue(3);
    node.append(added);
    expect_node(*node[0], JsonValue::STRING_TYPE, R"("a")");
    expect_node(*node[1], JsonValue::STRING_TYPE, R"("b")");
    EXPECT_EQ(node[2], added);
    for (const size_t beyond : {size_t{3}, size_t{4}, SIZE_MAX}) EXPECT_EQ(node[beyond], nullptr);
    *node[0] = 1;
    EXPECT_EQ(text_of(node), R"([1,"b",3])") << "reading changed nothing, writing the element";
}

TEST(json_value, index_makes_any_other_node_an_empty_array) {
    for_each_state([](JsonValue& node, const state& s) {
        if (s.type == JsonValue::ARRAY_TYPE) return;
        EXPECT_EQ(node[0], nullptr);
        expect_node(node, JsonValue::ARRAY_TYPE, "[]");
    });
}

TEST(json_value, append_makes_any_other_node_an_array_and_owns_the_node) {
    const leaf l;
    for_each_state([&l](JsonValue& node, const state& s) {
        auto* const added = new JsonValue(l.passed());
        node.append(added);
        EXPECT_EQ(size_of_array(node), s.type == JsonValue::ARRAY_TYPE ? 4U : 1U);
        EXPECT_EQ(payload<JsonValue::JsonArray>(node).back(), added);
    });
    EXPECT_EQ(l.held(), 0U);
}

TEST(json_value, appended_null_pointer_is_a_null_node) {
    JsonValue node;
    node.append(nullptr);
    ASSERT_NE(node[0], nullptr);
    expect_node(*node[0], JsonValue::NULL_TYPE, "null");
    EXPECT_EQ(text_of(node), "[null]");
}

TEST(json_value, children_stay_where_they_are_while_others_come_and_go) {
    JsonValue node;
    node["list"] << 0 << 1;
    JsonValue& object = node["object"];
    JsonValue* const list = payload<JsonValue::JsonObject>(node)["list"];
    JsonValue* const second = (*list)[1];
    for (int n = 2; n < 100; ++n) {
        *list << n;
        node[std::to_string(n)] = n;
    }
    for (int n = 2; n < 100; ++n) {
        list->erase(2);
        node.erase(std::to_string(n));
    }
    list->erase(0);
    *second = "second";
    object = "object";
    EXPECT_EQ(text_of(node), R"({"list":["second"],"object":"object"})");
}

// --- Erase --------------------------------------------------------------------------------------

TEST(json_value, erase_of_an_element_frees_it_and_closes_the_gap) {
    const leaf l;
    JsonValue node;
    node << 0 << l.passed() << 2 << l.passed();
    node.erase(1);
    EXPECT_EQ(l.held(), 1U);
    EXPECT_EQ(text_of(node), R"([0,2,{"n":7}])");
    node.erase(2);
    EXPECT_EQ(l.held(), 0U);
    node.erase(0);
    EXPECT_EQ(text_of(node), "[2]");
    node.erase(0);
    expect_node(node, JsonValue::ARRAY_TYPE, "[]");
    node.erase(0);
    expect_node(node, JsonValue::ARRAY_TYPE, "[]");
}

TEST(json_value, erase_beyond_the_elements_does_nothing) {
    for_each_state([](JsonValue& node, const state& s) {
        for (const size_t beyond : {size_t{3}, size_t{4}, SIZE_MAX}) node.erase(beyond);
        expect_node(node, s.type, s.text);
    });
}

TEST(json_value, erase_of_a_member_frees_it_and_its_key) {
    const leaf l;
    JsonValue node;
    node["a"] = 1;
    node["b"] << l.passed();
    node["a\0b"s] = 2;
    node.erase("b");
    EXPECT_EQ(l.held(), 0U);
    EXPECT_EQ(text_of(node), R"({"a":1,"a\u0000b":2})");
    node.erase("b");
    node.erase("");
    EXPECT_EQ(size_of_object(node), 2U);
    node.erase("a");
    EXPECT_EQ(text_of(node), R"({"a\u0000b":2})");
    node.erase("a\0b"s);
    expect_node(node, JsonValue::OBJECT_TYPE, "{}");
}

TEST(json_value, erase_by_index_or_key_leaves_other_types_as_they_are) {
    for_each_state([](JsonValue& node, const state& s) {
        const void* before = node.value;
        if (s.type != JsonValue::ARRAY_TYPE) node.erase(0);
        if (s.type != JsonValue::OBJECT_TYPE) node.erase("a");
        EXPECT_EQ(node.value, before);
        expect_node(node, s.type, s.text);
    });
}

TEST(json_value, erase_of_all_keeps_the_type_and_the_container) {
    for_each_state([](JsonValue& node, const state& s) {
        const void* before = node.value;
        for (int time = 1; time <= 2; ++time) {
            node.erase();
            EXPECT_EQ(node.value, before);
            expect_node(node, s.type,
                        s.type == JsonValue::ARRAY_TYPE    ? "[]"
                        : s.type == JsonValue::OBJECT_TYPE ? "{}"
                                                           : s.text);
        }
    });
}

TEST(json_value, erase_of_all_frees_elements_and_members) {
    const leaf l;
    JsonValue list;
    list << l.passed() << l.passed();
    JsonValue object;
    object["a"] = l.passed();
    object["b"]["c"] = l.passed();
    EXPECT_EQ(l.held(), 4U);
    list.erase();
    EXPECT_EQ(l.held(), 2U);
    object.erase();
    EXPECT_EQ(l.held(), 0U);
}

std::vector<const void*> freed;

void free_and_note(void* block) {
    freed.push_back(block);
    free(block);
}

TEST(json_value, erase_of_all_takes_the_last_element_first) {
    json_set_alloc_funcs(malloc, free_and_note);
    JsonValue node;
    std::vector<const void*> last_first;
    for (int n = 1; n <= 3; ++n) {
        json_t* number = json_integer(n);
        last_first.insert(last_first.begin(), number);
        node << number;
    }
    freed.clear();
    node.erase();
    EXPECT_EQ(freed, last_first);
    json_set_alloc_funcs(malloc, free);
}

// --- Text: null, booleans, numbers --------------------------------------------------------------

template <class Value>
void expect_text(const Value& v, const std::string& print_text, const std::string& string_text) {
    const JsonValue node(v);
    EXPECT_EQ(printed(node), print_text);
    EXPECT_EQ(text_of(node), string_text);
}

template <class Value>
void expect_text(const Value& v, const std::string& text) {
    expect_text(v, text, text);
}

TEST(json_text, null_and_booleans_are_words) {
    EXPECT_EQ(printed(JsonValue()), "null");
    EXPECT_EQ(text_of(JsonValue()), "null");
    expect_text(true, "true");
    expect_text(false, "false");
}

TEST(json_text, integers_are_decimal_numbers) {
    for (const int v : {0, 1, -1, 1234567}) expect_text(v, std::to_string(v));
    expect_text(INT_MIN, "-2147483648");
    expect_text(INT_MAX, "2147483647");
    expect_text(0U, "0");
    expect_text(2147483648U, "2147483648");
    expect_text(UINT_MAX, "4294967295");
    expect_text(LONG_MIN, "-9223372036854775808");
    expect_text(-1L, "-1");
    expect_text(LONG_MAX, "9223372036854775807");
    expect_text(0UL, "0");
    expect_text(9223372036854775808UL, "9223372036854775808");
    expect_text(ULONG_MAX, "18446744073709551615");
}

TEST(json_text, doubles_have_six_decimals_printed_and_six_digits_in_a_string) {
    struct test_case {
        double value;
        const char* print_text;
        const char* string_text;
    };
    const test_case cases[] = {
        {1.5, "1.500000", "1.5"},
        {0.5, "0.500000", "0.5"},
        {0.1 + 0.2, "0.300000", "0.3"},
        {0.0, "0.000000", "0"},
        {-0.0, "-0.000000", "-0"},
        {2.0, "2.000000", "2"},
        {-2.75, "-2.750000", "-2.75"},
        {123456.7, "123456.700000", "123457"},
        {100000.0, "100000.000000", "100000"},
        {999999.5, "999999.500000", "1e+06"},
        {1e6, "1000000.000000", "1e+06"},
        {1e22, "10000000000000000000000.000000", "1e+22"},
        {0.0001, "0.000100", "0.0001"},
        {0.00001, "0.000010", "1e-05"},
        {0.0000001, "0.000000", "1e-07"},
        {0.9999999, "1.000000", "1"},
        {2.123456789, "2.123457", "2.12346"},
        {DBL_MIN, "0.000000", "2.22507e-308"},
        {HUGE_VAL, "inf", "inf"},
        {-HUGE_VAL, "-inf", "-inf"},
        {std::numeric_limits<double>::quiet_NaN(), "nan", "nan"},
    };
    for (const test_case& c : cases) expect_text(c.value, c.print_text, c.string_text);
}

TEST(json_text, huge_doubles_are_printed_with_all_their_digits) {
    for (const double v : {1e300, DBL_MAX, -DBL_MAX}) {
        const std::string text = printed(JsonValue(v));
        EXPECT_EQ(text.size(), (v < 0 ? 1U : 0U) + (v == 1e300 ? 301U : 309U) + 7U);
        EXPECT_TRUE(text.ends_with(".000000"));
        EXPECT_EQ(strtod(text.c_str(), nullptr), v);
    }
    EXPECT_EQ(text_of(JsonValue(1e300)), "1e+300");
    EXPECT_EQ(text_of(JsonValue(-DBL_MAX)), "-1.79769e+308");
}

TEST(json_text, doubles_of_any_bits_are_written_as_printf_and_streams_do) {
    std::mt19937_64 bits(1);  // the same ones in every run
    for (int n = 0; n < 2000; ++n) {
        const uint64_t pattern = bits();
        const double v = n % 2 == 0 ? std::bit_cast<double>(pattern)
                                    : static_cast<double>(static_cast<int64_t>(pattern)) / 1e14;
        char print_text[400];
        (void)snprintf(print_text, sizeof print_text, "%f", v);
        std::ostringstream string_text;
        string_text << v;
        ASSERT_NO_FATAL_FAILURE(expect_text(v, print_text, string_text.str())) << pattern;
    }
}

// --- Text: strings ------------------------------------------------------------------------------

std::string escaped(unsigned char byte) {
    constexpr std::string_view specials = "\"\\\b\f\n\r\t";
    constexpr std::string_view letters = "\"\\bfnrt";
    constexpr std::string_view digits = "0123456789abcdef";
    const size_t special = specials.find(static_cast<char>(byte));
    if (special != std::string_view::npos) return "\\"s + letters[special];
    if (byte >= 32) return {static_cast<char>(byte)};
    return "\\u00"s + digits[byte / 16] + digits[byte % 16];
}

TEST(escape_json, treats_each_byte_by_its_rule) {
    std::string all;
    std::string all_escaped;
    for (int byte = 0; byte <= 255; ++byte) {
        const auto c = static_cast<unsigned char>(byte);
        const std::string text(1, static_cast<char>(c));
        EXPECT_EQ(escape_json(text), escaped(c)) << byte;
        all += text;
        all_escaped += escaped(c);
    }
    EXPECT_EQ(escape_json(all), all_escaped);
    expect_text(all, '"' + all_escaped + '"');
}

TEST(escape_json, of_known_texts) {
    const std::pair<std::string, std::string> cases[] = {
        {"", ""},
        {"plain", "plain"},
        {"\x01", R"(\u0001)"},
        {"\x1f", R"(\u001f)"},
        {"\0"s, R"(\u0000)"},
        {"a\0b"s, R"(a\u0000b)"},
        {"say \"x\"", R"(say \"x\")"},
        {R"(C:\n)", R"(C:\\n)"},
        {"\b\f\n\r\t", R"(\b\f\n\r\t)"},
        {"\v\a\x1b", R"(\u000b\u0007\u001b)"},
        {"/</script>", "/</script>"},
        {"\x7f", "\x7f"},
        {"\xc3\xa4\xf0\x9f\x98\x80", "\xc3\xa4\xf0\x9f\x98\x80"},
        {"\xff\xc0", "\xff\xc0"},
        {"%s%n", "%s%n"},
    };
    for (const auto& [text, wanted] : cases) {
        EXPECT_EQ(escape_json(text), wanted);
        expect_text(text, '"' + wanted + '"');
        JsonValue node;
        node[text] = 1;
        EXPECT_EQ(text_of(node), "{\"" + wanted + "\":1}");
        EXPECT_EQ(printed(node), text_of(node));
    }
}

TEST(json_text, long_text_is_written_whole) {
    const std::string text(1000000, '"');
    std::string wanted = "\"";
    for (size_t n = 0; n < text.size(); ++n) wanted += "\\\"";
    wanted += '"';
    const JsonValue node(text);
    EXPECT_TRUE(text_of(node) == wanted);
    EXPECT_TRUE(printed(node) == wanted);
}

// --- Text: leaves -------------------------------------------------------------------------------

// The same text both ways for a leaf, alone and inside an array.
void expect_leaf(json_t* json, const std::string& wanted) {
    ASSERT_NE(json, nullptr) << wanted;
    JsonValue list;
    list << json;
    EXPECT_EQ(text_of(*list[0]), wanted);
    EXPECT_EQ(printed(*list[0]), wanted);
    EXPECT_EQ(text_of(list), "[" + wanted + "]");
}

TEST(json_text, leaf_is_compact_ascii_of_any_type_with_six_digits) {
    const std::pair<const char*, const char*> cases[] = {
        {R"({"b": 1, "a": [1, {"c" : null}] })", R"({"b":1,"a":[1,{"c":null}]})"},
        {"{}", "{}"},
        {"[ ]", "[]"},
        {"null", "null"},
        {"true", "true"},
        {"false", "false"},
        {"7", "7"},
        {"-9223372036854775808", "-9223372036854775808"},
        {"2.123456789", "2.12346"},
        {"100.0", "100.0"},
        {"0.5", "0.5"},
        {"-0.0", "-0.0"},
        {"123456.7", "123457.0"},
        {"1e300", "1e300"},
        {R"("text")", R"("text")"},
        {R"("")", R"("")"},
        {"\"\xc3\xa4\xe6\x97\xa5\xf0\x9f\x98\x80\"", R"("\u00E4\u65E5\uD83D\uDE00")"},
        {"{\"\xc3\xa4\": 1}", R"({"\u00E4":1})"},
        {R"("\"\\\b\f\n\r\t\u0001\u001f\u007f/")",
         "\"\\\"\\\\\\b\\f\\n\\r\\t\\u0001\\u001F\x7f/\""},
    };
    for (const auto& [text, wanted] : cases) {
        expect_leaf(json_loads(text, JSON_DECODE_ANY, nullptr), wanted);
    }
}

TEST(json_text, leaf_that_cannot_be_dumped_is_left_out) {
    expect_leaf(json_string_nocheck("\xff"), "");
    expect_leaf(json_pack("[i,o]", 1, json_string_nocheck("\xff")), "");
    const leaf outer;
    json_t* const inner = json_object();
    json_object_set(outer.json, "inner", inner);
    json_object_set(inner, "outer", outer.json);
    expect_leaf(outer.passed(), "");
    json_object_clear(inner);
    json_decref(inner);

    JsonValue object;
    object["a"] = json_string_nocheck("\xff");
    object["b"] = 1;
    EXPECT_EQ(text_of(object), R"({"a":,"b":1})");
    std::string text = "kept";
    JsonValue(json_string_nocheck("\xff")).toString(text);
    EXPECT_EQ(text, "kept");
}

TEST(json_text, leaf_is_dumped_as_it_is_now) {
    const leaf l;
    const JsonValue node(l.passed());
    json_object_set_new(l.json, "n", json_integer(8));
    EXPECT_EQ(text_of(node), R"({"n":8})");
    EXPECT_EQ(l.held(), 1U) << "writing takes no reference";
}

// --- Text: trees --------------------------------------------------------------------------------

TEST(json_text, empty_containers) {
    JsonValue node;
    node.erase();
    EXPECT_EQ(node[0], nullptr);
    EXPECT_EQ(printed(node), "[]");
    EXPECT_EQ(text_of(node), "[]");
    node["a"];
    node.erase("a");
    EXPECT_EQ(printed(node), "{}");
    EXPECT_EQ(text_of(node), "{}");
}

TEST(json_text, tree_has_no_white_space) {
    JsonValue node;
    node["b\"c"] = "x";
    node["a"] << 1 << 2.5;
    node["a b"]["d"] = json_pack("[ii]", 1, 2);
    node["none"];
    node["a"].erase();
    node["a"] << 1 << 2.5 << -3L << 4U << 5UL << false;
    EXPECT_EQ(printed(node),
              R"({"a":[1,2.500000,-3,4,5,false],"a b":{"d":[1,2]},"b\"c":"x","none":null})");
    EXPECT_EQ(text_of(node),
              R"({"a":[1,2.5,-3,4,5,false],"a b":{"d":[1,2]},"b\"c":"x","none":null})");
}

TEST(json_text, reads_back_as_the_same_document) {
    std::string ascii;
    for (char c = 1; c < 127; ++c) ascii += c;
    JsonValue node;
    node[ascii] << ascii << "\xc3\xa4" << INT_MIN << LONG_MAX << 0.25 << true << json_null();
    json_t* wanted = json_pack("{s:[s,s,i,I,f,b,n]}", ascii.c_str(), ascii.c_str(), "\xc3\xa4",
                               INT_MIN, static_cast<json_int_t>(LONG_MAX), 0.25, 1);
    for (const std::string& text : {text_of(node), printed(node)}) {
        json_t* read = json_loads(text.c_str(), JSON_REJECT_DUPLICATES, nullptr);
        EXPECT_EQ(json_equal(read, wanted), 1) << text;
        json_decref(read);
    }
    json_decref(wanted);
}

TEST(json_text, string_keeps_what_it_holds) {
    std::string text = "a";
    JsonValue(1.5).toString(text);
    JsonValue("b").toString(text);
    JsonValue(json_pack("[]")).toString(text);
    EXPECT_EQ(text, "a1.5\"b\"[]");
}

TEST(json_text, print_goes_on_where_the_file_stands) {
    FILE* f = fopen("/tmp/whole", "we");
    EXPECT_GT(fprintf(f, "a"), 0);
    JsonValue(1.5).print(f);
    JsonValue("b\0c"s).print(f);
    JsonValue(json_pack("[]")).print(f);
    EXPECT_EQ(fclose(f), 0);
    EXPECT_EQ(read_file("/tmp/whole"), "a1.500000\"b\\u0000c\"[]");
}

TEST(json_text, print_to_a_full_device_is_an_error_of_the_file) {
    FILE* f = fopen("/dev/full", "we");
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(setvbuf(f, nullptr, _IONBF, 0), 0);
    JsonValue("text").print(f);
    EXPECT_NE(ferror(f), 0);
    EXPECT_EQ(fclose(f), 0);
}

TEST(json_text, type_outside_the_table_is_nothing) {
    for (const uint32_t number : {11U, 12U, UINT32_MAX}) {
        JsonValue list;
        list << 1 << 2;
        JsonValue& odd = *list[0];
        odd.type = static_cast<JsonValue::Type>(number);
        EXPECT_EQ(text_of(odd), "");
        EXPECT_EQ(printed(odd), "");
        EXPECT_EQ(text_of(list), "[,2]");
        odd.type = JsonValue::INT32_TYPE;  // the payload is freed by its type

        JsonValue bare;
        bare.type = static_cast<JsonValue::Type>(number);
        bare.erase(0);
        bare.erase("a");
        bare.erase();
        bare.destroy();
        expect_node(bare, JsonValue::NULL_TYPE, "null");
    }
}

// --- Text: the program's locale -----------------------------------------------------------------

// Streams of a program whose locale writes 1.234,5.
class comma_numbers : public std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

// Makes that the locale of this program. Its C half is compiled here, since no machine is sure to
// have one; localedef complains of all that is missing besides.
void use_comma_locale() {
    write_file("/tmp/source",
               "LC_NUMERIC\ndecimal_point \"<U002C>\"\nthousands_sep \"<U002E>\"\ngrouping 3;3\n"
               "END LC_NUMERIC\n");
    write_file("/tmp/characters", "CHARMAP\n<U002C> \\x2c\n<U002E> \\x2e\nEND CHARMAP\n");
    process_options quietly;
    quietly.output = "/tmp/localedef";
    (void)run_process({"/usr/bin/localedef", "--force", "--inputfile=/tmp/source",
                       "--charmap=/tmp/characters", "/tmp/comma"},
                      quietly);
    setenv("LOCPATH", "/tmp", 1);
    ASSERT_NE(setlocale(LC_NUMERIC, "comma"), nullptr) << read_file("/tmp/localedef");
    std::locale::global(std::locale(std::locale(), new comma_numbers));
}

TEST(json_text, decimal_comma_of_the_program_changes_nothing) {
    use_comma_locale();
    char text[16];
    (void)snprintf(text, sizeof text, "%.1f", 1.5);
    ASSERT_STREQ(text, "1,5");
    std::ostringstream stream;
    stream << 1234.5;
    ASSERT_EQ(stream.str(), "1.234,5");

    expect_text(1234.5, "1234.500000", "1234.5");
    expect_text(1234567, "1234567");
    expect_text(1234567U, "1234567");
    expect_text(-1234567L, "-1234567");
    expect_text(1234567UL, "1234567");
    expect_leaf(json_real(1234.5), "1234.5");
    EXPECT_EQ(escape_json("\x1f"), R"(\u001f)");
}

// --- Reading -------------------------------------------------------------------------------------

TEST(json_text, longer_than_was_said_is_read_whole) {
    const std::string text = "[\"" + std::string(30000, 'x') + "\"]";
    const json_ptr document =
        parse_json(1, [&] { return json_loadb(text.data(), text.size(), 0, nullptr); });
    EXPECT_EQ(std::string(dump_json(document.get()).get()), text);
}

}  // namespace
