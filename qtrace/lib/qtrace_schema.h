/* What a record and a file header consist of, as tables: members with their places, widths and gates, flags by name,
 * register lists. For programs that read members by name instead of repeating qtrace_t.h. Usable from C11 and C++20.
 * The tables and their texts belong to the library, are constant and may be read by any number of threads. */
#ifndef QTRACE_SCHEMA_H
#define QTRACE_SCHEMA_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* What a member holds. */
typedef enum QTRACE_SHAPE {
    QTRACE_SHAPE_DECIMAL = 0,     /* a number of 1 to 4 bytes, usually shown in decimal */
    QTRACE_SHAPE_HEXADECIMAL = 1, /* a number of 4 or 8 bytes, usually shown in hexadecimal */
    QTRACE_SHAPE_ADDRESS = 2,     /* an address of 8 bytes */
    QTRACE_SHAPE_VSID = 3,        /* a number of 7 bytes: bits 8 to 63 of the VSID, least significant byte first */
    QTRACE_SHAPE_HOST_WALKS = 4,  /* QTRACE_RTW[RDX_MAX_2LEVEL_DEPTH] */
    QTRACE_SHAPE_HOST_ADDRESSES = 5, /* QTRACE_RTW_HOST_RA[RDX_MAX_GUEST_LEVELS] */
    QTRACE_SHAPE_GUEST_WALK = 6,     /* QTRACE_RTW_GUEST */
    QTRACE_SHAPE_REGISTERS = 7,      /* QTRACE_REGISTERS; qtrace_register_lists() describes it further */
    QTRACE_SHAPE_TEXT = 8            /* char *, as long as `comment_length` says */
} QTRACE_SHAPE;

/* A member of QTRACE_RECORD or QTRACE_FILE_HDR. */
typedef struct QTRACE_Member {
    const char *name;  /* as in qtrace_t.h; bit-fields that share bytes share a row */
    const char *group; /* what it belongs to: "data-address", "next-translation", ...; "unused": never filled */
    uint16_t offset;   /* in the structure, in bytes */
    uint16_t width;    /* bytes */
    QTRACE_SHAPE shape;
    uint64_t control_gate; /* filled when one of these bits of the control word (8 bytes) is set, */
    uint32_t file_gate; /* or of the file header's own flags; both 0: always filled, if the group is not "unused" */
} QTRACE_Member;

/* What a flag is for. */
typedef enum QTRACE_FLAG_ROLE {
    QTRACE_FLAG_GATE = 0,        /* says that members are filled */
    QTRACE_FLAG_MARK = 1,        /* says something by itself */
    QTRACE_FLAG_MODE = 2,        /* two bits: a translation mode, 0 radix, 1 hashed page table, 2 real, 3 none */
    QTRACE_FLAG_HEADER_ONLY = 3, /* a gate in file headers, never set in records */
    QTRACE_FLAG_UNUSED = 4,      /* never set */
    QTRACE_FLAG_RESERVED = 5     /* never set */
} QTRACE_FLAG_ROLE;

/* A flag of the control word, or of a file header's own flags. */
typedef struct QTRACE_Flag {
    const char *name; /* as in qtrace_t.h */
    uint64_t mask;    /* its bits in the word, which is read as a little-endian number */
    uint8_t bit;      /* the lowest of them */
    uint8_t width;    /* their number */
    QTRACE_FLAG_ROLE role;
} QTRACE_Flag;

/* A register class in one direction. An entry is `index` (2 bytes), and from its 8th byte on the value. */
typedef struct QTRACE_Register_List {
    const char *name;   /* "gpr_in", "vsxr_out", ... */
    const char *letter; /* before the register number: "r", "f", "s", "v", "x" */
    int output;         /* written, not read */
    uint16_t count;     /* offset in QTRACE_REGISTERS of the number of entries (1 byte), which may exceed: */
    uint16_t capacity;  /* entries that there is room for */
    uint16_t entries;   /* offset of the first entry */
    uint16_t width;     /* bytes of an entry */
    uint16_t words;     /* 64-bit words of a value: 1 or 2 */
} QTRACE_Register_List;

/* The tables; *count (never null) receives the number of rows. Members are in the order in which `qtrace dump` shows
 * them, flags in the order of their bits; every bit has its flag. Never null. */
const QTRACE_Member *qtrace_record_members(size_t *count);
const QTRACE_Member *qtrace_header_members(size_t *count);
const QTRACE_Flag *qtrace_control_flags(size_t *count);
const QTRACE_Flag *qtrace_file_flags(size_t *count);
const QTRACE_Register_List *qtrace_register_lists(size_t *count);

#ifdef __cplusplus
}
#endif

#endif
