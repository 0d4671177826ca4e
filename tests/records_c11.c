/* The records as a C11 program sees them. The header comes first: it needs no other. */
#include "ravo_records.h"

#include "records_c11.h"

#if defined(RAVO_FIELD_AT) || defined(RAVO_FIELD_SIZE) || defined(RAVO_RECORD_SIZE)
#error "the header leaves its own macros behind"
#endif

#define KIND(member) \
    _Generic((member), int32_t: "int32", int64_t: "int64", uint64_t: "uint64", char*: "text", default: "pointer")
#define RECORD(record, bytes) {#record, "", 0, sizeof(record), ""},
#define FIELD(record, field, at, bytes, kind)                               \
    {#record, #field, offsetof(record, field), sizeof(((record*)0)->field), \
     KIND(((record*)0)->field)},

const struct seen_field c11_fields[] = {
#include "record_layout.inc"
};
const size_t c11_field_count = sizeof c11_fields / sizeof c11_fields[0];
