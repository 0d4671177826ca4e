// A field of a record as data: its kind, its place and its size, taken from the member itself so
// that none of them can be written down wrongly.
#ifndef RECORD_FIELD_H
#define RECORD_FIELD_H

#include <cstddef>
#include <cstdint>
#include <type_traits>

enum class value_kind {
    text,  // an array of characters
    int32,
    int64,
    uint64,
    text_pointer,  // in rows that stay inside the store only
};

template <class Member>
constexpr value_kind kind_of() {
    if constexpr (std::is_array_v<Member>) return value_kind::text;
    if constexpr (std::is_same_v<Member, int32_t>) return value_kind::int32;
    if constexpr (std::is_same_v<Member, int64_t>) return value_kind::int64;
    if constexpr (std::is_same_v<Member, uint64_t>) return value_kind::uint64;
    if constexpr (std::is_same_v<Member, const char*>) return value_kind::text_pointer;
}

// Initialises three members in a row: offset, size and kind (size_t, size_t, value_kind). A macro
// because only that can name a member.
#define FIELD(record, member) \
    offsetof(record, member), sizeof(record::member), kind_of<decltype(record::member)>()

#endif  // RECORD_FIELD_H
