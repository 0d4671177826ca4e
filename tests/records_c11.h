/* How a compiler sees a record or one of its fields. */
#ifndef TESTS_RECORDS_C11_H
#define TESTS_RECORDS_C11_H

#include <stddef.h>

struct seen_field {
    const char* record;
    const char* field; /* empty: the record itself */
    size_t offset;
    size_t size;
    const char* kind; /* as in record_layout.inc; empty for a record */
};

#ifdef __cplusplus
extern "C" {
#endif

/* The lines of record_layout.inc as the C11 compiler sees them. */
extern const struct seen_field c11_fields[];
extern const size_t c11_field_count;

#ifdef __cplusplus
}
#endif

#endif
