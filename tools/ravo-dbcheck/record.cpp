// A row's payload taken apart.
#include "record.h"

#include <algorithm>
#include <bit>
#include <cstddef>

namespace {

constexpr uint64_t first_blob_type = 12;
constexpr size_t integer_sizes[] = {0, 1, 2, 3, 4, 6, 8};
constexpr uint64_t real_type = 7;
constexpr uint64_t zero_type = 8;
constexpr uint64_t one_type = 9;

bool is_known(uint64_t type) { return type <= one_type || type >= first_blob_type; }

uint64_t size_of(uint64_t type) {
    if (type >= first_blob_type) return (type - first_blob_type) / 2;
    if (type == real_type) return 8;
    return type < real_type ? integer_sizes[type] : 0;
}

// Two's complement, of up to 8 bytes.
int64_t signed_number(byte_view from) {
    uint64_t number = !from.empty() && (from[0] & 0x80U) != 0 ? UINT64_MAX : 0;
    for (const uint8_t byte : from) number = number << 8 | byte;
    return static_cast<int64_t>(number);
}

value make_value(uint64_t type, byte_view from) {
    using kind = value::type;
    if (type == 0) return {};
    if (type == zero_type || type == one_type) {
        return {.kind = kind::integer, .integer = static_cast<int64_t>(type - zero_type)};
    }
    if (type == real_type) {
        return {.kind = kind::real, .real = std::bit_cast<double>(signed_number(from))};
    }
    if (type < real_type) return {.kind = kind::integer, .integer = signed_number(from)};
    const std::string_view text(reinterpret_cast<const char*>(from.data()), from.size());
    return {.kind = type % 2 == 0 ? kind::blob : kind::text, .text = text};
}

bool can_hold(column_kind column, const value& v) {
    using kind = value::type;
    if (v.kind == kind::null) return true;
    switch (column) {
        case column_kind::row_id:
            return false;
        case column_kind::integer:
            return v.kind == kind::integer || v.kind == kind::real;
        case column_kind::text:
            return v.kind == kind::text && v.text.find('\0') == std::string_view::npos;
    }
    return false;
}

}  // namespace

bool parse_record(byte_view payload, std::vector<value>& values) {
    values.clear();
    byte_view types = payload;
    const auto head_size = take_varint(types);
    const size_t size_bytes = payload.size() - types.size();
    if (!head_size || *head_size < size_bytes || *head_size > payload.size()) return false;
    types = payload.first(*head_size).subspan(size_bytes);
    byte_view body = payload.subspan(*head_size);
    while (!types.empty()) {
        const auto type = take_varint(types);
        if (!type || !is_known(*type) || size_of(*type) > body.size()) return false;
        values.push_back(make_value(*type, body.first(size_of(*type))));
        body = body.subspan(size_of(*type));
    }
    return body.empty();
}

bool fits(std::span<const value> values, std::span<const column_kind> columns) {
    return std::ranges::equal(values, columns,
                              [](const value& v, column_kind kind) { return can_hold(kind, v); });
}
