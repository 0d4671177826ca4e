// The wire records: sizes, offsets and kinds of every field, at run time and in both languages.
#include "ravo_records.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <type_traits>
#include <vector>

#include "records_c11.h"

namespace {

template <class Member>
constexpr size_t size_of = sizeof(Member);

template <class Member>
const char* kind_name() {
    if (std::is_same_v<Member, int32_t>) return "int32";
    if (std::is_same_v<Member, int64_t>) return "int64";
    if (std::is_same_v<Member, uint64_t>) return "uint64";
    if (std::is_same_v<std::remove_extent_t<Member>, char>) return "text";
    return std::is_pointer_v<Member> ? "pointer" : "another";
}

#define RECORD(record, bytes) {#record, "", 0, sizeof(record), ""},
#define FIELD(record, field, at, bytes, kind)                                    \
    {#record, #field, offsetof(record, field), size_of<decltype(record::field)>, \
     kind_name<decltype(record::field)>()},
const std::vector<seen_field> cpp_fields = {
#include "record_layout.inc"
};
#undef RECORD
#undef FIELD

#define RECORD(record, bytes) {#record, "", 0, bytes, ""},
#define FIELD(record, field, at, bytes, kind) {#record, #field, at, bytes, #kind},
const std::vector<seen_field> prescribed_fields = {
#include "record_layout.inc"
};
#undef RECORD
#undef FIELD

void expect_prescribed(std::span<const seen_field> seen) {
    ASSERT_EQ(seen.size(), prescribed_fields.size());
    for (size_t n = 0; n < seen.size(); ++n) {
        const seen_field& wanted = prescribed_fields[n];
        const std::string where = std::string(wanted.record) + "." + wanted.field;
        EXPECT_EQ(std::string(seen[n].record) + "." + seen[n].field, where);
        EXPECT_EQ(seen[n].offset, wanted.offset) << where;
        EXPECT_EQ(seen[n].size, wanted.size) << where;
        EXPECT_STREQ(seen[n].kind, wanted.kind) << where;
    }
}

TEST(records, layout_is_as_prescribed_in_cpp) { expect_prescribed(cpp_fields); }

TEST(records, layout_is_as_prescribed_in_c11) { expect_prescribed({c11_fields, c11_field_count}); }

TEST(records, every_record_can_be_copied_byte_for_byte) {
#define RECORD(record, bytes) \
    EXPECT_TRUE(std::is_trivially_copyable_v<record>&& std::is_standard_layout_v<record>);
#define FIELD(record, field, at, bytes, kind)
#include "record_layout.inc"
#undef RECORD
#undef FIELD
}

// What lies between the listed fields is padding: no record has a field that the layout does not
// name, so every gap is smaller than the alignment that asks for it.
TEST(records, layout_names_every_field) {
    size_t end = 0;
    size_t size = 0;
    for (const seen_field& line : cpp_fields) {
        if (line.field[0] == '\0') {
            EXPECT_TRUE(size < end + 8 || size == 1) << "before " << line.record;
            size = line.size;
            end = 0;
            continue;
        }
        EXPECT_LT(line.offset, end + 8) << line.record << "." << line.field;
        end = line.offset + line.size;
    }
}

TEST(records, query_headers_point_to_their_rows) {
    EXPECT_TRUE((std::is_same_v<decltype(db_conn_server_log_query::data), db_conn_server_log*>));
    EXPECT_TRUE(
        (std::is_same_v<decltype(db_conn_client_log_query::data), db_conn_client_log_data*>));
    EXPECT_TRUE((std::is_same_v<decltype(db_event_query::data), db_event_data*>));
    EXPECT_TRUE((std::is_same_v<decltype(db_server_list_query::data), db_server_list_data*>));
    EXPECT_TRUE((std::is_same_v<decltype(db_device_info_query::data), db_device_info_data*>));
    EXPECT_TRUE((std::is_same_v<decltype(db_privilege_user_block_query::data),
                                db_privilege_user_block_data*>));
}

TEST(records, header_leaves_no_macros_of_its_own_behind) {
#if defined(RAVO_FIELD_AT) || defined(RAVO_FIELD_SIZE) || defined(RAVO_RECORD_SIZE)
    FAIL();
#endif
}

}  // namespace
