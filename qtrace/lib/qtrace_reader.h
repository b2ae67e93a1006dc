/* Reader of trace files, and the errors of the writer: what the reference trace library offers beside the four
 * writer operations. Usable from C11 and C++20. A reader belongs to one thread at a time. */
#ifndef QTRACE_READER_H
#define QTRACE_READER_H

#include "qtrace_t.h"

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Version of this interface, as compiled against; the function tells that of the library in use. It grows with every
 * change that a caller can notice. */
#define QTRACE_API_VERSION 2
int qtrace_api_version(void);

/* An open trace file. */
typedef struct QTRACE_Reader QTRACE_Reader;

/* What one call of qtrace_next delivers. */
typedef enum QTRACE_ITEM {
    QTRACE_ITEM_END = 0,    /* the file ended cleanly after its last block */
    QTRACE_ITEM_HEADER = 1, /* a file header */
    QTRACE_ITEM_RECORD = 2, /* a record */
    /* Here the trace does not simply go on: `discontinuity` says why. The next call goes on after it */
    QTRACE_ITEM_DISCONTINUITY = 3,
    QTRACE_ITEM_ERROR = 4 /* the file cannot be read any further (an I/O error, out of memory); see qtrace_error */
} QTRACE_ITEM;

/* Why a trace is discontinuous. */
typedef enum QTRACE_CAUSE {
    QTRACE_CAUSE_PAUSE = 0, /* tracing was paused and resumed: a file header with an address that is not the file's
                                  first header. Delivered before that header */
    QTRACE_CAUSE_REFUSED = 1,  /* the writer refused items, its disk was full */
    QTRACE_CAUSE_LEFT_OUT = 2, /* a recovery or a cut left out blocks */
    QTRACE_CAUSE_DAMAGE = 3,   /* bytes cannot be read, or blocks are missing or in another order */
    QTRACE_CAUSE_CUT_END = 4   /* the file ends without its last block: it was cut, or its writer died */
} QTRACE_CAUSE;

/* The name of a cause ("pause", "refused", "left out", "damage", "cut end"); null for anything else. */
const char *qtrace_cause_name(QTRACE_CAUSE cause);

/* A place where a trace does not simply go on, and what is lost there. */
typedef struct QTRACE_Discontinuity {
    QTRACE_CAUSE cause;
    const char *reason; /* a short English text, static */
    uint64_t offset;    /* byte in the file: the first damaged one, or where the following block begins */
    uint64_t bytes;     /* damaged bytes that were skipped */
    uint64_t records;   /* records lost, as far as the blocks around tell. At a cut end: those of the block that is
                           cut, if its header can be read; more may be missing */
    int records_known;  /* `records` is exact */
    uint64_t headers;   /* file headers lost, as far as the blocks around tell */
    /* The open header from here on, as qtrace_open_header describes it. Null when there is none, or when nothing
     * can be read before the next discontinuity. The reader's, valid until its next call. */
    const QTRACE_FILE_HDR *context;
} QTRACE_Discontinuity;

/* One item. Owned by the reader and valid until its next call on the same reader. */
typedef struct QTRACE_Item {
    QTRACE_ITEM kind;
    QTRACE_FILE_HDR header;             /* of a header; comment points into the reader's memory, terminated */
    QTRACE_RECORD record;               /* of a record */
    QTRACE_Discontinuity discontinuity; /* of a discontinuity */
    /* Address of the instruction of a record, reconstructed from headers and next-instruction addresses; of a
     * discontinuity that of the first instruction after it. address_known is 0 until a header has named one. */
    uint64_t address;
    int address_known;
    /* Headers and records before this item. With damage before it whose loss is not known: at least so many. Those
     * that a discontinuity lost follow it: `record_number + discontinuity.records` is the next record. */
    uint64_t header_number;
    uint64_t record_number;
    uint64_t
        block_offset; /* byte offset in the file of the block that holds the item; of a discontinuity its offset */
} QTRACE_Item;

/* What qtrace_info tells without decoding records. */
typedef struct QTRACE_Info {
    uint32_t format_version;
    uint32_t compression; /* 0 none, 1 zstd */
    uint64_t size;        /* bytes of the file */
    uint64_t blocks;      /* whole blocks */
    uint64_t records;
    uint64_t headers;
    uint64_t damaged_places;
    int clean_end; /* the writer's last block is there, whole, and nothing follows it */
    /* Without damage, for it was known to whoever wrote the file: */
    uint64_t left_out; /* places where the writer refused items or a recovery or a cut left out some; there the
                          numbers of items jump */
    int open_end;      /* the file was closed by a recovery or a cut: the trace went on */
} QTRACE_Info;

/* Opens `name`. Returns null when it is not a readable trace file; then *error (when not null) receives a text
 * that the caller frees with free(): "NAME: REASON" or, where bytes of it are wrong, "NAME: byte OFFSET: REASON". */
QTRACE_Reader *qtrace_open(const char *name, char **error);

/* The next item, in file order. */
QTRACE_ITEM qtrace_next(QTRACE_Reader *reader, const QTRACE_Item **item);

/* The context: the header that is open where the last delivered item stands, the last one that names an address, with
 * the partition and process of later headers put in; its comment is null. After a discontinuity: from there on. A
 * reader that begins in the middle of a file learns it from the block. Null before any header. The reader's, valid
 * until its next call. */
const QTRACE_FILE_HDR *qtrace_open_header(QTRACE_Reader *reader);

/* Goes to record number `record` (from 0) by way of the blocks, without decoding those before it: the next item is
 * what directly precedes it (headers, discontinuities), or itself. Returns 0, or -1 when the file has no such record
 * (then at the end). Where the record was lost the next item is the discontinuity. */
int qtrace_seek(QTRACE_Reader *reader, uint64_t record);

/* Summary of the whole file, from the block headers alone. The position of the reader is kept. Returns 0 or -1. */
int qtrace_info(QTRACE_Reader *reader, QTRACE_Info *info);

/* The same, but every block's payload is read and its checksum tested too; a block that fails is a damaged place.
 */
int qtrace_verify(QTRACE_Reader *reader, QTRACE_Info *info);

/* The last discontinuity or error as text, "NAME: byte OFFSET: REASON"; the reader's, valid until its next call. */
const char *qtrace_error(const QTRACE_Reader *reader);

/* Closes the reader; null is allowed. */
void qtrace_close(QTRACE_Reader *reader);

/* ---- What an instruction does ------------------------------------------------------------------------- */

/* Told by the encoding of the instruction word, the record's flags and its next address. */
typedef enum QTRACE_KIND {
    QTRACE_KIND_LOAD = 1,
    QTRACE_KIND_STORE = 2,
    QTRACE_KIND_BRANCH = 4,
    QTRACE_KIND_TAKEN = 8,   /* a branch that was taken; never of the last record of a trace segment, unless
                                    its termination code tells */
    QTRACE_KIND_STRING = 16, /* moves a number of bytes that the instruction names itself */
    QTRACE_KIND_CALL = 32,   /* a branch that sets the link register, taken or not */
    QTRACE_KIND_RETURN = 64, /* a branch to the link register, taken or not */
    QTRACE_KIND_SYSTEM_CALL = 128,
    QTRACE_KIND_CACHE = 256, /* cache management */
    QTRACE_KIND_ERROR = 512  /* the record carries an error code */
} QTRACE_KIND;

/* The kinds of the instruction of a record item, or-ed; 0 for one that is none of these, and for other items. */
uint32_t qtrace_kinds(const QTRACE_Item *item);

/* The name of a single kind ("load", "system_call"); null for anything else. */
const char *qtrace_kind_name(uint32_t kind);

/* ---- Blocks of a file, for several readers ------------------------------------------------------------ */

/* Where the blocks of one file are, from their headers alone. It never changes, and any number of threads may use it
 * at once: each opens a reader of its own by it, and none of these looks for the blocks again. */
typedef struct QTRACE_Index QTRACE_Index;

/* One step of reading a file: a block with items, and whatever stands between it and the block with items before it
 * (its comment, damaged bytes). Blocks can be decoded by themselves and in any order. */
typedef struct QTRACE_Block {
    uint64_t offset;       /* byte in the file where the step begins */
    uint64_t size;         /* bytes up to the end of the block */
    uint64_t first_record; /* records of the trace before the block, lost ones too */
    uint64_t records;      /* in the block */
    uint64_t first_header; /* file headers before the block */
    uint64_t headers;      /* in the block */
} QTRACE_Block;

/* Opens `name` and reads the headers of its blocks. Null as from qtrace_open. */
QTRACE_Index *qtrace_index_open(const char *name, char **error);

/* Readers opened by the index may live on; null is allowed. */
void qtrace_index_close(QTRACE_Index *index);

/* All blocks in file order, and how many; the index's. They take 48 bytes each from the first call on. No blocks where
 * memory is short or the file cannot be read. With damage, blocks whose header cannot be read are not among them, and
 * of those that are some may turn out to be damaged. */
const QTRACE_Block *qtrace_index_blocks(const QTRACE_Index *index, uint64_t *count);

/* The same for a reader: copies them, no more than `room`. Returns how many the file has, or 0 when it cannot be read.
 * The position of the reader is kept. */
uint64_t qtrace_blocks(QTRACE_Reader *reader, QTRACE_Block *to, uint64_t room);

/* The summary of the file, as qtrace_info. */
const QTRACE_Info *qtrace_index_info(const QTRACE_Index *index);

/* A reader of the file that the index was made of, at its beginning, also when another file has taken its name since.
 * Null when memory is short. */
QTRACE_Reader *qtrace_open_with_index(const QTRACE_Index *index);

/* Restricts the reader to `count` blocks from number `first` on: it delivers what it would deliver of them when it
 * read the whole file, discontinuities before each included, then QTRACE_ITEM_END. The end of the file belongs to its
 * last block; a file without blocks has one empty range, (0, 0). So readers of adjacent ranges deliver every item
 * exactly once. qtrace_seek ends the restriction. Returns 0, or -1 when there are no such blocks or the file
 * cannot be read: see qtrace_error. */
int qtrace_select_blocks(QTRACE_Reader *reader, uint64_t first, uint64_t count);

/* Blocks in a row, as the index keeps them: one in each step, or 2, 4, 8, ... where the file has more blocks than 65,536
 * steps hold, so that the memory of an index does not grow with the file. The last step may have fewer. Where records are
 * missing, or numbers fall because one file stands after another, `record_after` is not `first_record + records`. */
typedef struct QTRACE_Step {
    uint64_t offset;      /* byte in the file where the first block's range begins */
    uint64_t size;        /* bytes up to the end of the last block */
    uint64_t first_block; /* its number among all blocks */
    uint64_t blocks;
    uint64_t first_record;  /* records of the trace before the first block, lost ones too */
    uint64_t record_after;  /* number that a record after the last block would have */
    uint64_t records;       /* in the blocks */
    uint64_t lowest_record; /* the least first_record, and the greatest record_after, of any block */
    uint64_t highest_record_after;
    uint64_t first_header; /* the same for file headers */
    uint64_t header_after;
    uint64_t headers;
} QTRACE_Step;

/* All steps in file order, and how many; the index's. */
const QTRACE_Step *qtrace_index_steps(const QTRACE_Index *index, uint64_t *count);

/* Copies the blocks of a step, no more than `room`. Returns how many it has; 0 when there is no such step, or the file
 * cannot be read. The position of the reader is kept. */
uint64_t qtrace_step_blocks(QTRACE_Reader *reader, uint64_t step, QTRACE_Block *to, uint64_t room);

/* ---- Recovery ---------------------------------------------------------------------------------------- */

/* What a recovery kept and what was lost. */
typedef struct QTRACE_Recovery {
    uint64_t blocks, records, headers; /* kept */
    uint64_t damaged_places;
    uint64_t lost_bytes;
    uint64_t lost_records;  /* as far as the blocks around the damage tell */
    int lost_records_known; /* lost_records is exact */
    int open_end;           /* the end of the trace is missing */
} QTRACE_Recovery;

/* Copies every whole block of the file `from` to the file `to`, which is created or replaced and reads without
 * damage: the numbers of records and headers stay what they were, blocks that follow a loss (as left out) and a lost
 * end are marked. A file without damage is copied as it is, and so is one that was recovered before. Returns 0, or -1; then *error
 * (when not null) receives a text that the caller frees with free(). Nothing is written when there is no whole
 * block, or when both are the same file. */
int qtrace_recover(const char *from, const char *to, QTRACE_Recovery *result, char **error);

/* ---- Cutting ----------------------------------------------------------------------------------------- */

/* Which records a cut keeps: those that satisfy all of it. A file header belongs to the record that follows it; the
 * file's first header, which describes the machine, is always kept. */
typedef struct QTRACE_Cut {
    uint64_t from;          /* records from this number on */
    uint64_t most;          /* so many records at most; UINT64_MAX: all */
    uint64_t every, window; /* of `every` record numbers, counted from `from`, the first `window`; every 0: all */
    const uint64_t *lpids;  /* of these partitions; of any when lpid_count is 0 */
    uint64_t lpid_count;
    const uint64_t *pids; /* of these processes */
    uint64_t pid_count;
    /* Takes the next bytes of the new file. 0, or an errno, which ends the cut. */
    int (*write)(void *user, const void *bytes, size_t size);
    /* Called from time to time with the number of records passed so far; may be null. */
    void (*progress)(void *user, uint64_t records);
    void *user;
} QTRACE_Cut;

/* What a cut kept, and the damage that it met; what comes after the last record kept is not looked at. */
typedef struct QTRACE_Cut_Result {
    uint64_t blocks, records, headers; /* kept */
    uint64_t damaged_places;           /* left out */
    int open_end;                      /* what belongs after the last item kept was left out */
} QTRACE_Cut_Result;

/* Writes the chosen items of the trace file `from` as a trace file that reads without damage: the numbers of records
 * and headers stay what they were, and blocks that follow something left out say so and restate the header in force.
 * Blocks are copied as they are where all of them is kept; what a block's numbers or its context rule out is not
 * decoded. Choosing everything copies the file, and cutting the result in the same way copies that. Returns 0, or -1;
 * then *error (when not null) receives a text that the caller frees with free(). */
int qtrace_cut(const char *from, const QTRACE_Cut *what, QTRACE_Cut_Result *result, char **error);

/* ---- The writer's errors ----------------------------------------------------------------------------- */

/* Path and reason of the last writer operation that failed on the calling thread ("trace0: write: No space left on
 * device"), or an empty text. Valid until the thread's next writer operation. */
const char *qtrace_writer_error(void);

/* Writer operations that failed so far, on all threads; tells whether QTRACE_Fclose did. */
uint64_t qtrace_writer_failures(void);

#ifdef __cplusplus
}
#endif

#endif
