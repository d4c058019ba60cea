/*
 * Run-time layout check of the player library's records, compiled by both sides of the
 * boundary (the module's C++ tests and the reference library's C check), so a compiler or
 * flag that lays the records out differently is caught where it is used. The entries are those
 * of OPLAYER_LAYOUT in oplayer.h, the list the compile-time checks are made from.
 */
#ifndef ORVELLO_OPLAYER_LAYOUT_H
#define ORVELLO_OPLAYER_LAYOUT_H

#include "oplayer.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

typedef struct oplayer_layout_entry {
    const char* name;
    size_t actual;
    size_t expected;
} oplayer_layout_entry;

#define OPLAYER_LAYOUT_OFFSET(type, field, offset) { #type "." #field, offsetof(type, field), offset },
#define OPLAYER_LAYOUT_INT(type, field, offset, width)                                     \
    OPLAYER_LAYOUT_OFFSET(type, field, offset)                                             \
    { "sizeof(" #type "." #field ")", sizeof(((type*)0)->field), width },
#define OPLAYER_LAYOUT_SIZE(type, size) { "sizeof(" #type ")", sizeof(type), size },

/* Appends one formatted line to report while it has room; used counts what was written. */
static inline void oplayer_layout_note(char* report, size_t size, size_t* used, const char* format, ...)
{
    va_list args;
    int n;
    if (*used >= size)
        return;
    va_start(args, format);
    n = vsnprintf(report + *used, size - *used, format, args);
    va_end(args);
    if (n > 0)
        *used += (size_t)n;
}

/* Writes a value with a distinct byte in each position through the integer field and reports
 * unless those bytes land at the field's offset, least significant first. */
#define OPLAYER_LAYOUT_BYTE_ORDER(type, field, offset, width)                                    \
    {                                                                                            \
        type record;                                                                             \
        unsigned char bytes[sizeof(type)];                                                       \
        size_t b;                                                                                \
        int ok = 1;                                                                              \
        memset(&record, 0, sizeof(record));                                                      \
        record.field = (width) == 1 ? 0x51 : 0x54535251;                                         \
        memcpy(bytes, &record, sizeof(record));                                                  \
        for (b = 0; b < (size_t)(width) && (size_t)(offset) + b < sizeof(bytes); ++b)            \
            ok = ok && bytes[(size_t)(offset) + b] == 0x51 + b;                                  \
        if (!ok) {                                                                               \
            ++mismatches;                                                                        \
            oplayer_layout_note(report, size, &used, "%s does not land little-endian at %zu\n",  \
                                #type "." #field, (size_t)(offset));                             \
        }                                                                                        \
    }
#define OPLAYER_LAYOUT_IGNORE_PTR(type, field, offset)
#define OPLAYER_LAYOUT_IGNORE_SIZE(type, size)

/* Checks every offset, width and size of the list, and that values written through the integer
 * fields land little-endian at their fixed offsets. Writes one line per mismatch into report
 * (NUL-terminated when size > 0) and returns the number of mismatches. */
static inline int oplayer_layout_check(char* report, size_t size)
{
    static const oplayer_layout_entry entries[] = {
        OPLAYER_LAYOUT(OPLAYER_LAYOUT_INT, OPLAYER_LAYOUT_OFFSET, OPLAYER_LAYOUT_SIZE)
    };
    int mismatches = 0;
    size_t used = 0;
    size_t i;
    if (size > 0)
        report[0] = '\0';
    for (i = 0; i < sizeof(entries) / sizeof(entries[0]); ++i) {
        if (entries[i].actual == entries[i].expected)
            continue;
        ++mismatches;
        oplayer_layout_note(report, size, &used, "%s is %zu, expected %zu\n", entries[i].name, entries[i].actual,
                            entries[i].expected);
    }
    OPLAYER_LAYOUT(OPLAYER_LAYOUT_BYTE_ORDER, OPLAYER_LAYOUT_IGNORE_PTR, OPLAYER_LAYOUT_IGNORE_SIZE)
    return mismatches;
}

#endif /* ORVELLO_OPLAYER_LAYOUT_H */
