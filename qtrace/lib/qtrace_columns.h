/* Records of a trace file as columns: arrays with one element per record, filled many records at a time. What data
 * frames, statistics and exports need without a call per record. Usable from C11 and C++20.
 *
 * All functions continue at the reader's position (qtrace_seek) and move it. Buffers belong to the caller, have room
 * for the number of rows that the call names, and are written only as far as rows are filled. */
#ifndef QTRACE_COLUMNS_H
#define QTRACE_COLUMNS_H

#include "qtrace_reader.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Translations -------------------------------------------------------------------------------------- */

/* Which members of a QTRACE_Translation the record gave. */
enum {
    QTRACE_TRANSLATION_VSID = 1,
    QTRACE_TRANSLATION_RPN = 2,
    QTRACE_TRANSLATION_PAGE_SIZE = 4,
    QTRACE_TRANSLATION_GUEST_PAGE_SIZE = 8
};

/* How one address was translated. The members have the meaning, width and unit of those of QTRACE_RECORD. */
typedef struct QTRACE_Translation {
    uint8_t guest_mode, host_mode;      /* 0 radix, 1 hashed page table, 2 real, 3 undefined or not involved */
    uint8_t present;                    /* QTRACE_TRANSLATION_... */
    uint8_t page_size, guest_page_size; /* codes */
    uint8_t guest_depth, host_depth;    /* levels walked */
    uint8_t reserved;                   /* 0 */
    uint64_t rpn;                       /* real page number: the real address shifted right by 12 */
    uint64_t vsid;                      /* bits 8 to 63 of the VSID, in the lower 56 bits */
    uint64_t host_walk[5][4]; /* real addresses of the entries of levels 1, 2, 3 and of the page-table entry */
    uint64_t host_address[4]; /* what the host walks of guest table entries found */
    uint64_t guest_walk[5];   /* guest real addresses of the entries of levels 1 to 4 and of the page-table entry */
    /* Guest real address, with the lowest 12 bits of the effective address taken out by exclusive-or when it is 4096 or
     * more: the same for all accesses to a page. */
    uint64_t guest_address;
} QTRACE_Translation;

/* A table of distinct translations. Row 0 is that of an address that is absent: modes 3, else zero. */
typedef struct QTRACE_Translations QTRACE_Translations;

/* A table with row 0 alone; null without memory. For qtrace_translations_free. */
QTRACE_Translations *qtrace_translations_new(void);
void qtrace_translations_free(QTRACE_Translations *table);
/* Rows of the table. */
uint32_t qtrace_translations_count(const QTRACE_Translations *table);
/* Copies rows `first` to `first + count - 1`, which must exist. */
void qtrace_translations_copy(const QTRACE_Translations *table, uint32_t first, uint32_t count,
                              QTRACE_Translation *to);
/* Adds the rows of `from` that `to` lacks. numbers[i], of qtrace_translations_count(from) elements, receives the row of
 * `to` that equals row i of `from`. Returns 0, or -1 without memory. */
int qtrace_translations_merge(QTRACE_Translations *to, const QTRACE_Translations *from, uint32_t *numbers);

/* ---- Columns of records -------------------------------------------------------------------------------- */

/* Bits of QTRACE_Columns.which. */
enum {
    QTRACE_COLUMN_ADDRESS = 1 << 0,
    QTRACE_COLUMN_HAS_ADDRESS = 1 << 1,
    QTRACE_COLUMN_NEXT = 1 << 2,
    QTRACE_COLUMN_HAS_NEXT = 1 << 3,
    QTRACE_COLUMN_DATA = 1 << 4,
    QTRACE_COLUMN_HAS_DATA = 1 << 5,
    QTRACE_COLUMN_WORD = 1 << 6,
    QTRACE_COLUMN_FLAGS = 1 << 7,
    QTRACE_COLUMN_DATA_TRANSLATION = 1 << 8,
    QTRACE_COLUMN_NEXT_TRANSLATION = 1 << 9,
    QTRACE_COLUMN_CONTEXT = 1 << 10,
    QTRACE_COLUMN_NODE = 1 << 11,
    QTRACE_COLUMN_TERMINATION_NODE = 1 << 12,
    QTRACE_COLUMN_TERMINATION = 1 << 13,
    QTRACE_COLUMN_ERROR = 1 << 14,
    QTRACE_COLUMN_PROCESSOR = 1 << 15,
    QTRACE_COLUMN_LENGTH = 1 << 16,
    QTRACE_COLUMN_KINDS = 1 << 17,
    QTRACE_COLUMN_ALL = (1 << 18) - 1
};

#define QTRACE_NO_CONTEXT UINT32_MAX

/* The columns of records. Those not in `which` may be null. */
typedef struct QTRACE_Columns {
    uint32_t which; /* QTRACE_COLUMN_... */
    QTRACE_Translations
        *translations;    /* receives translations not in it yet; null without the two columns of them */
    uint64_t *address;    /* of the instruction; 0 when unknown */
    uint8_t *has_address; /* 1: address is known */
    uint64_t *next;       /* address of the next instruction; 0 without has_next */
    uint8_t *has_next;
    uint64_t *data; /* effective address of the access; 0 without has_data */
    uint8_t *has_data;
    uint32_t *word;             /* instruction word */
    uint64_t *flags;            /* control word: unit 0 in the lower half, unit 1 in the upper */
    uint32_t *data_translation; /* row of `translations`; 0 without has_data */
    uint32_t *next_translation; /* the same; 0 without has_next */
    uint32_t *context;          /* number of the last file header before the record; QTRACE_NO_CONTEXT before any */
    uint8_t *node, *termination_node, *termination, *error, *processor;
    uint16_t *length; /* bytes that a string instruction moves */
    uint16_t *kinds;  /* QTRACE_KIND bits, or-ed */
    /* Results: rows filled, and the number of the first row's record. Numbers of a call's rows are consecutive. */
    uint64_t rows;
    uint64_t first_record;
} QTRACE_Columns;

/* Reads up to `rows` records. Returns
 *   QTRACE_ITEM_RECORD         when so many were read,
 *   QTRACE_ITEM_DISCONTINUITY  when one follows the rows filled so far; *item describes it as qtrace_next does,
 *   QTRACE_ITEM_END, QTRACE_ITEM_ERROR  as qtrace_next does.
 * File headers are passed over; the column `context` counts them. */
QTRACE_ITEM qtrace_read_columns(QTRACE_Reader *reader, uint64_t rows, QTRACE_Columns *columns,
                                const QTRACE_Item **item);

/* The next file header or discontinuity, with the records before it passed over. */
QTRACE_ITEM qtrace_next_header(QTRACE_Reader *reader, const QTRACE_Item **item);

/* ---- Registers ----------------------------------------------------------------------------------------- */

/* Register classes: values of the column `register_class`. Bits of QTRACE_Register_Columns.inputs and .outputs
 * are 1 << class. */
enum {
    QTRACE_CLASS_GPR = 0,
    QTRACE_CLASS_FPR = 1,
    QTRACE_CLASS_VMXR = 2,
    QTRACE_CLASS_VSXR = 3,
    QTRACE_CLASS_SPR = 4,
    QTRACE_CLASSES = 5
};

/* One row for each register that a record names: those read, then those written, in the order of their classes. */
typedef struct QTRACE_Register_Columns {
    uint32_t inputs, outputs; /* which classes */
    uint64_t room;            /* rows that the arrays can hold; at least QTRACE_MAX_REGISTERS */
    uint64_t *record;         /* number of the record */
    uint8_t *output;          /* 0 read, 1 written */
    uint8_t *register_class;  /* QTRACE_CLASS_... */
    uint16_t *number;
    uint64_t *value; /* the first 64 bits of a 128-bit register */
    uint64_t *high;  /* the second 64 bits; 0 of a 64-bit register */
    /* Results: rows filled, and records read. */
    uint64_t rows;
    uint64_t records;
} QTRACE_Register_Columns;

/* Registers of one record, with all classes full. */
#define QTRACE_MAX_REGISTERS 90

/* Reads up to `records` records. Returns as qtrace_read_columns does; QTRACE_ITEM_RECORD also when the arrays might not
 * hold another record's registers. Elements of the arrays after the rows that are filled are undefined. */
QTRACE_ITEM qtrace_read_registers(QTRACE_Reader *reader, uint64_t records, QTRACE_Register_Columns *columns,
                                  const QTRACE_Item **item);

#ifdef __cplusplus
}
#endif

#endif
