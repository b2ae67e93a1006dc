/* Writes commit streams (docs/commit-stream.md), which a replay host plays into a trace plugin. One header, usable from
 * C11 and C++20, with no dependency beyond the standard library; with COMMIT_STREAM_WITH_ZSTD defined it also writes
 * zstd-compressed streams and needs that library.
 *
 *     commit_stream *stream = commit_stream_open("run.jsonl");
 *     commit_stream_machine machine = {.processors = 1, .threads = 1};
 *     commit_stream_write_machine(stream, &machine);
 *     commit_stream_begin_commit(stream, tid, seq, pc, npc, op);
 *     commit_stream_is(stream, COMMIT_STREAM_LOAD);
 *     commit_stream_fetch(stream, &fetch);
 *     commit_stream_data(stream, &ea, &data);
 *     commit_stream_in(stream, COMMIT_STREAM_GPR, 4, 0x2000, 0);
 *     commit_stream_end(stream);
 *     if (commit_stream_close(stream)) ...
 *
 * Calls between begin_commit and end may come in any order, each at most once but those for registers. The first
 * failure, a write that fails or a call that would make a stream that is no stream, is kept: nothing more is written,
 * commit_stream_problem() names it and commit_stream_close() returns it. A stream belongs to one thread at a time. */
#ifndef COMMIT_STREAM_WRITER_H
#define COMMIT_STREAM_WRITER_H

#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#ifdef COMMIT_STREAM_WITH_ZSTD
#include <zstd.h>
#endif

/* ---- The keys of a stream ---------------------------------------------------------------------------- */

/* One row a key: KEY(its name, C type, shape). Readers of streams use the same lists.
 *   NUMBER  decimal number          WORD   "0x..." of as many digits as needed
 *   TRUTH   true or false           PAGES  list of page sizes, a mask of COMMIT_STREAM_PAGE_... here */

#define COMMIT_STREAM_MACHINE_KEYS(KEY)                                                                            \
    KEY(processors, uint32_t, NUMBER)                                                                              \
    KEY(threads, uint32_t, NUMBER) /* per processor */                                                             \
    KEY(version, uint32_t, NUMBER) /* of the host */                                                               \
    KEY(memory, uint64_t, WORD)    /* bytes */

#define COMMIT_STREAM_CONTEXT_KEYS(KEY)                                                                            \
    KEY(ptcr, uint64_t, WORD) /* partition-table control register */                                               \
    KEY(lpid, uint64_t, WORD) /* logical-partition id */                                                           \
    KEY(pid, uint32_t, WORD)  /* process id */                                                                     \
    KEY(sdr1, uint64_t, WORD) /* base and size of the hashed page table */                                         \
    KEY(bit64, uint8_t, TRUTH)                                                                                     \
    KEY(little_endian, uint8_t, TRUTH)                                                                             \
    KEY(kernel, uint8_t, TRUTH)                                                                                    \
    KEY(cycle_mode, uint8_t, TRUTH)                                                                                \
    KEY(pages, uint32_t, PAGES) /* page sizes of the host partition */                                             \
    KEY(guest_pages, uint32_t, PAGES)

/* What every commit says. */
#define COMMIT_STREAM_COMMIT_KEYS(KEY)                                                                             \
    KEY(seq, uint64_t, NUMBER) /* ascending per hardware thread */                                                 \
    KEY(pc, uint64_t, WORD)    /* effective address */                                                             \
    KEY(npc, uint64_t, WORD)   /* effective address of the next instruction, as far as it is known */              \
    KEY(op, uint32_t, WORD)    /* instruction word */

/* Translation of one address. Codes and units are the simulator's own. */
#define COMMIT_STREAM_ADDRESS_KEYS(KEY)                                                                            \
    KEY(status, uint32_t, NUMBER) /* outcome of the translation */                                                 \
    KEY(mode, uint32_t, NUMBER)   /* the exact translation mode */                                                 \
    KEY(guest_mode, uint32_t, NUMBER)                                                                              \
    KEY(host_mode, uint32_t, NUMBER)                                                                               \
    KEY(guest_two_level, uint8_t, NUMBER)                                                                          \
    KEY(host_two_level, uint8_t, NUMBER)                                                                           \
    KEY(guest_depth, uint8_t, NUMBER) /* levels of the guest walk */                                               \
    KEY(host_depth, uint8_t, NUMBER)  /* levels of one host walk */                                                \
    KEY(relocated, uint8_t, TRUTH)    /* translation was on */                                                     \
    KEY(ra, uint64_t, WORD)           /* real address */                                                           \
    KEY(vsid, uint64_t, WORD)         /* virtual segment id */                                                     \
    KEY(rpn, uint32_t, WORD)          /* real page number */                                                       \
    KEY(page_size, uint8_t, NUMBER)                                                                                \
    KEY(host_rpn, uint32_t, WORD)                                                                                  \
    KEY(guest_rpn, uint32_t, WORD)                                                                                 \
    KEY(host_page_size, uint8_t, NUMBER)                                                                           \
    KEY(guest_page_size, uint8_t, NUMBER)

/* What an instruction is: FLAG(word, constant, bit) of the list `is`. */
#define COMMIT_STREAM_FLAGS(FLAG)                                                                                  \
    FLAG(branch, BRANCH, 0)                                                                                        \
    FLAG(unconditional, UNCONDITIONAL, 1)                                                                          \
    FLAG(taken, TAKEN, 2)                                                                                          \
    FLAG(load, LOAD, 3)                                                                                            \
    FLAG(store, STORE, 4)                                                                                          \
    FLAG(cache, CACHE, 5)                                                                                          \
    FLAG(string, STRING, 6)                                                                                        \
    FLAG(exception, EXCEPTION, 7)                                                                                  \
    FLAG(vmx, VMX_INSTRUCTION, 8)                                                                                  \
    FLAG(vsx, VSX_INSTRUCTION, 9)                                                                                  \
    FLAG(filtered, FILTERED, 10)                                                                                   \
    FLAG(sim_support, SIM_SUPPORT, 11)

/* SIZE(word, bit) of the lists `pages` and `guest_pages`: COMMIT_STREAM_PAGE_64K and so on. */
#define COMMIT_STREAM_PAGE_SIZES(SIZE)                                                                             \
    SIZE(4K, 0)                                                                                                    \
    SIZE(16K, 1)                                                                                                   \
    SIZE(64K, 2)                                                                                                   \
    SIZE(128K, 3)                                                                                                  \
    SIZE(256K, 4)                                                                                                  \
    SIZE(1M, 5)                                                                                                    \
    SIZE(2M, 6)                                                                                                    \
    SIZE(16M, 7)                                                                                                   \
    SIZE(256M, 8)                                                                                                  \
    SIZE(1G, 9)                                                                                                    \
    SIZE(16G, 10)                                                                                                  \
    SIZE(undefined, 11)

/* CLASS(word, constant, most of them an instruction can name, 64-bit words of a value) of the objects `in`, `out`. */
#define COMMIT_STREAM_REGISTER_CLASSES(CLASS)                                                                      \
    CLASS(gpr, GPR, 32, 1)                                                                                         \
    CLASS(fpr, FPR, 4, 1)                                                                                          \
    CLASS(spr, SPR, 6, 1)                                                                                          \
    CLASS(vmx, VMX, 4, 2)                                                                                          \
    CLASS(vsx, VSX, 4, 2)

/* Keys of a `pte` and an `rtpte` line beside `tid`, in the order of the arguments that give them. */
#define COMMIT_STREAM_PTE_KEYS(KEY) KEY(pa, uint64_t, WORD) KEY(upper, uint64_t, WORD) KEY(lower, uint64_t, WORD)
#define COMMIT_STREAM_RTPTE_KEYS(KEY)                                                                              \
    KEY(l1, uint64_t, WORD)                                                                                        \
    KEY(l2, uint64_t, WORD) KEY(l3, uint64_t, WORD) KEY(pte, uint64_t, WORD) KEY(pa, uint64_t, WORD)

/* ---- What is written --------------------------------------------------------------------------------- */

#define COMMIT_STREAM_MEMBER(key, type, shape) type key;

enum {
#define COMMIT_STREAM_ROW(word, constant, bit) COMMIT_STREAM_##constant = 1 << bit,
    COMMIT_STREAM_FLAGS(COMMIT_STREAM_ROW)
#undef COMMIT_STREAM_ROW
};

enum {
#define COMMIT_STREAM_ROW(word, bit) COMMIT_STREAM_PAGE_##word = 1 << bit,
    COMMIT_STREAM_PAGE_SIZES(COMMIT_STREAM_ROW)
#undef COMMIT_STREAM_ROW
};

typedef enum commit_stream_class {
#define COMMIT_STREAM_ROW(word, constant, most, words) COMMIT_STREAM_##constant,
    COMMIT_STREAM_REGISTER_CLASSES(COMMIT_STREAM_ROW)
#undef COMMIT_STREAM_ROW
        COMMIT_STREAM_CLASSES
} commit_stream_class;

enum { COMMIT_STREAM_HOST_WALKS = 5, COMMIT_STREAM_HOST_ADDRESSES = 4, COMMIT_STREAM_MOST_REGISTERS = 32 };

typedef struct commit_stream_machine {
    COMMIT_STREAM_MACHINE_KEYS(COMMIT_STREAM_MEMBER)
    const uint32_t *options; /* indices of the processor options that are on; may be null when there are none */
    size_t option_count;
    const char *source; /* where the stream comes from; null: not said */
} commit_stream_machine;

/* State of one hardware thread. */
typedef struct commit_stream_context {
    COMMIT_STREAM_CONTEXT_KEYS(COMMIT_STREAM_MEMBER)
} commit_stream_context;

/* Translation of the instruction's address or of its data access's. What is 0 is not written and read as 0. */
typedef struct commit_stream_address {
    COMMIT_STREAM_ADDRESS_KEYS(COMMIT_STREAM_MEMBER)
    uint64_t host_walk[COMMIT_STREAM_HOST_WALKS][4]; /* real addresses of the entries: level 1, 2, 3, page table */
    uint64_t host_ra[COMMIT_STREAM_HOST_ADDRESSES];  /* host real address of each guest level */
    uint64_t guest_walk[5]; /* guest real addresses: level 1, 2, 3, page table, what it resolved to */
} commit_stream_address;

/* ---- Inside ------------------------------------------------------------------------------------------ */

enum { COMMIT_STREAM_BUFFER = 1 << 16, COMMIT_STREAM_PIECE = 1 << 11, COMMIT_STREAM_LONGEST_TEXT = 1 << 16 };

/* Registers of one class and direction, until the commit ends. */
typedef struct commit_stream_list {
    uint32_t count;
    int32_t number[COMMIT_STREAM_MOST_REGISTERS];
    uint64_t value[COMMIT_STREAM_MOST_REGISTERS][2];
} commit_stream_list;

typedef struct commit_stream {
    FILE *file;
    const char *problem; /* null while all is well */
    char *end;           /* of what waits in `buffer` */
    uint64_t threads;    /* of the machine; 0 before its line */
    unsigned open;       /* a commit is being written */
    unsigned seen;       /* parts of it that were given, COMMIT_STREAM_PART_... */
#ifdef COMMIT_STREAM_WITH_ZSTD
    ZSTD_CCtx *compressor; /* null: plain */
#endif
    commit_stream_list registers[2][COMMIT_STREAM_CLASSES]; /* of the open commit: in, out */
    char buffer[COMMIT_STREAM_BUFFER];
} commit_stream;

enum {
    COMMIT_STREAM_PART_TEXT = 1,
    COMMIT_STREAM_PART_IS = 2,
    COMMIT_STREAM_PART_LENGTH = 4,
    COMMIT_STREAM_PART_FETCH = 8,
    COMMIT_STREAM_PART_DATA = 16,
    COMMIT_STREAM_PART_TIME = 32
};

static inline void commit_stream_fail(commit_stream *stream, const char *problem)
{
    if (!stream->problem)
        stream->problem = problem;
}

static inline void commit_stream_store(commit_stream *stream, const char *bytes, size_t count)
{
    if (count && fwrite(bytes, 1, count, stream->file) != count)
        commit_stream_fail(stream, strerror(errno));
}

#ifdef COMMIT_STREAM_WITH_ZSTD
static inline void commit_stream_compress(commit_stream *stream, size_t count, ZSTD_EndDirective directive)
{
    char packed[1 << 14];
    ZSTD_inBuffer in = {stream->buffer, count, 0};
    size_t left;
    do {
        ZSTD_outBuffer out = {packed, sizeof packed, 0};
        left = ZSTD_compressStream2(stream->compressor, &out, &in, directive);
        if (ZSTD_isError(left)) {
            commit_stream_fail(stream, ZSTD_getErrorName(left));
            return;
        }
        commit_stream_store(stream, packed, out.pos);
    } while (left || in.pos < in.size);
}
#endif

/* Hands the buffer's bytes on. `finish`: 0 more comes soon, 1 a reader waits for them, 2 they are the last. */
static inline void commit_stream_drain(commit_stream *stream, int finish)
{
    const size_t count = (size_t)(stream->end - stream->buffer);
    stream->end = stream->buffer;
    if (stream->problem)
        return;
#ifdef COMMIT_STREAM_WITH_ZSTD
    if (stream->compressor) {
        commit_stream_compress(stream, count, finish == 2 ? ZSTD_e_end : finish ? ZSTD_e_flush : ZSTD_e_continue);
        return;
    }
#endif
    (void)finish;
    commit_stream_store(stream, stream->buffer, count);
}

/* Where a piece of at most COMMIT_STREAM_PIECE bytes may be put. */
static inline char *commit_stream_room(commit_stream *stream)
{
    if (stream->buffer + COMMIT_STREAM_BUFFER - stream->end < COMMIT_STREAM_PIECE)
        commit_stream_drain(stream, 0);
    return stream->end;
}

#define COMMIT_STREAM_PUT(at, literal) (memcpy(at, literal, sizeof(literal) - 1), (at) + sizeof(literal) - 1)

static inline char *commit_stream_put_NUMBER(char *at, uint64_t value)
{
    char digits[20];
    int first = 20;
    do
        digits[--first] = (char)('0' + value % 10);
    while (value /= 10);
    memcpy(at, digits + first, (size_t)(20 - first));
    return at + (20 - first);
}

static inline char *commit_stream_put_signed(char *at, int64_t value)
{
    if (value < 0)
        *at++ = '-';
    return commit_stream_put_NUMBER(at, value < 0 ? 0 - (uint64_t)value : (uint64_t)value);
}

/* Hexadecimal digits of `value` without leading zeros. */
static inline int commit_stream_digits(uint64_t value)
{
#ifdef __GNUC__
    return (67 - __builtin_clzll(value | 1)) / 4;
#else
    int count = 1;
    while (value >>= 4)
        ++count;
    return count;
#endif
}

static inline char *commit_stream_put_WORD(char *at, uint64_t value)
{
    char *const end = COMMIT_STREAM_PUT(at, "\"0x") + commit_stream_digits(value);
    char *digit = end;
    do
        *--digit = "0123456789abcdef"[value & 15];
    while (value >>= 4);
    *end = '"';
    return end + 1;
}

static inline char *commit_stream_put_TRUTH(char *at, uint64_t value)
{
    return value ? COMMIT_STREAM_PUT(at, "true") : COMMIT_STREAM_PUT(at, "false");
}

/* Closes a list or an object: its last comma goes, or nothing was in it. */
static inline char *commit_stream_put_close(char *at, char bracket)
{
    if (at[-1] == ',')
        --at;
    *at++ = bracket;
    return at;
}

static inline char *commit_stream_put_PAGES(char *at, uint64_t mask)
{
    *at++ = '[';
#define COMMIT_STREAM_ROW(word, bit)                                                                               \
    if (mask >> bit & 1)                                                                                           \
        at = COMMIT_STREAM_PUT(at, "\"" #word "\",");
    COMMIT_STREAM_PAGE_SIZES(COMMIT_STREAM_ROW)
#undef COMMIT_STREAM_ROW
    return commit_stream_put_close(at, ']');
}

/* `"key":value,` with `at` and the record `from` of the caller. */
#define COMMIT_STREAM_WRITE_KEY(key, type, shape)                                                                  \
    at = COMMIT_STREAM_PUT(at, "\"" #key "\":");                                                                   \
    at = commit_stream_put_##shape(at, from->key);                                                                 \
    *at++ = ',';
#define COMMIT_STREAM_WRITE_KEY_UNLESS_0(key, type, shape)                                                         \
    if (from->key) {                                                                                               \
        COMMIT_STREAM_WRITE_KEY(key, type, shape)                                                                  \
    }

/* `,"key":value` of an argument of the caller. */
#define COMMIT_STREAM_WRITE_ARGUMENT(key, type, shape)                                                             \
    at = COMMIT_STREAM_PUT(at, ",\"" #key "\":");                                                                  \
    at = commit_stream_put_##shape(at, key);

static inline char *commit_stream_put_words(char *at, const uint64_t *words, size_t count)
{
    size_t n;
    *at++ = '[';
    for (n = 0; n < count; ++n) {
        at = commit_stream_put_WORD(at, words[n]);
        *at++ = ',';
    }
    return commit_stream_put_close(at, ']');
}

/* How many of `count` rows of `width` words are left when the last ones that are all 0 are taken off. */
static inline size_t commit_stream_rows(const uint64_t *words, size_t count, size_t width)
{
    size_t used = count * width;
    while (used && !words[used - 1])
        --used;
    return (used + width - 1) / width;
}

static inline char *commit_stream_put_address(char *at, const commit_stream_address *from)
{
    size_t n, rows;
    COMMIT_STREAM_ADDRESS_KEYS(COMMIT_STREAM_WRITE_KEY_UNLESS_0)
    rows = commit_stream_rows(from->host_walk[0], COMMIT_STREAM_HOST_WALKS, 4);
    if (rows) {
        at = COMMIT_STREAM_PUT(at, "\"host_walk\":[");
        for (n = 0; n < rows; ++n) {
            at = commit_stream_put_words(at, from->host_walk[n], 4);
            *at++ = ',';
        }
        at = commit_stream_put_close(at, ']');
        *at++ = ',';
    }
    rows = commit_stream_rows(from->host_ra, COMMIT_STREAM_HOST_ADDRESSES, 1);
    if (rows) {
        at = COMMIT_STREAM_PUT(at, "\"host_ra\":");
        at = commit_stream_put_words(at, from->host_ra, rows);
        *at++ = ',';
    }
    if (commit_stream_rows(from->guest_walk, 5, 1)) {
        at = COMMIT_STREAM_PUT(at, "\"guest_walk\":");
        at = commit_stream_put_words(at, from->guest_walk, 5);
        *at++ = ',';
    }
    return commit_stream_put_close(at, '}');
}

/* Length of the well-formed UTF-8 character at `text`, 1 to 4 bytes; 0 when it is none. */
static inline size_t commit_stream_character(const unsigned char *text)
{
    const unsigned lead = text[0];
    const size_t length = lead < 0x80   ? 1
                          : lead < 0xC2 ? 0
                          : lead < 0xE0 ? 2
                          : lead < 0xF0 ? 3
                          : lead < 0xF5 ? 4
                                        : 0;
    size_t n;
    for (n = 1; n < length; ++n)
        if ((text[n] & 0xC0) != 0x80)
            return 0;
    if ((lead == 0xE0 && text[1] < 0xA0) || (lead == 0xED && text[1] > 0x9F) || (lead == 0xF0 && text[1] < 0x90) ||
        (lead == 0xF4 && text[1] > 0x8F)) /* longer than need be, surrogates, beyond the last character */
        return 0;
    return length;
}

/* One character of a JSON string, unless the text ends there or there is no room left. */
static inline void commit_stream_put_character(commit_stream *stream, const unsigned char **text, size_t *left)
{
    const unsigned char *from = *text;
    const size_t length = commit_stream_character(from);
    char *at = stream->end;
    if (!*from || *left < 6)
        return;
    if (*from == '"' || *from == '\\') {
        *at++ = '\\';
        *at++ = (char)*from;
    } else if (*from < ' ') {
        at = COMMIT_STREAM_PUT(at, "\\u00");
        *at++ = "01"[*from >> 4];
        *at++ = "0123456789abcdef"[*from & 15];
    } else if (length == 0) {
        *at++ = '?';
    } else {
        memcpy(at, from, length);
        at += length;
    }
    *text = from + (length ? length : 1);
    *left -= (size_t)(at - stream->end);
    stream->end = at;
}

/* `text` as a JSON string: control characters escaped, bytes that are no UTF-8 as '?', cut where it is too long. */
static inline void commit_stream_put_text(commit_stream *stream, const char *text)
{
    const unsigned char *from = (const unsigned char *)text;
    size_t left = COMMIT_STREAM_LONGEST_TEXT;
    *stream->end++ = '"';
    while (*from && left >= 6) {
        char *at = commit_stream_room(stream);
        char *const most = at + (left < 1024 ? left : 1024) - 6;
        for (; at < most && *from >= ' ' && *from < 0x80 && *from != '"' && *from != '\\'; ++from)
            *at++ = (char)*from;
        left -= (size_t)(at - stream->end);
        stream->end = at;
        commit_stream_put_character(stream, &from, &left);
    }
    *stream->end++ = '"';
}

/* Begins a line of any kind but `machine`; 0 when it cannot be written. */
static inline int commit_stream_begin_line(commit_stream *stream, int tid)
{
    if (stream->problem)
        return 0;
    if (stream->open)
        commit_stream_fail(stream, "a commit is not ended");
    else if (!stream->threads)
        commit_stream_fail(stream, "the machine is not written yet");
    else if (tid < 0 || (uint64_t)tid >= stream->threads)
        commit_stream_fail(stream, "no such hardware thread");
    return !stream->problem;
}

/* Begins one part of the open commit; 0 when it cannot be written. */
static inline int commit_stream_begin_part(commit_stream *stream, unsigned part)
{
    if (stream->problem)
        return 0;
    if (!stream->open)
        commit_stream_fail(stream, "no commit is begun");
    else if (stream->seen & part)
        commit_stream_fail(stream, "a part of a commit is given twice");
    stream->seen |= part;
    return !stream->problem;
}

static inline void commit_stream_add_register(commit_stream *stream, commit_stream_list *lists,
                                              commit_stream_class of, int32_t number, uint64_t word0,
                                              uint64_t word1)
{
#define COMMIT_STREAM_ROW(word, constant, most, words) most,
    static const uint32_t MOST[] = {COMMIT_STREAM_REGISTER_CLASSES(COMMIT_STREAM_ROW)};
#undef COMMIT_STREAM_ROW
    commit_stream_list *list = &lists[of];
    if (!commit_stream_begin_part(stream, 0))
        return;
    if (list->count == MOST[of]) {
        commit_stream_fail(stream, "too many registers of one class");
        return;
    }
    list->number[list->count] = number;
    list->value[list->count][0] = word0;
    list->value[list->count][1] = word1;
    ++list->count;
}

static inline void commit_stream_put_list(commit_stream *stream, const char *key, size_t length,
                                          commit_stream_list *list, size_t words)
{
    char *at = commit_stream_room(stream);
    uint32_t n;
    memcpy(at, key, length);
    at += length;
    for (n = 0; n < list->count; ++n) {
        *at++ = '[';
        at = commit_stream_put_signed(at, list->number[n]);
        *at++ = ',';
        at = commit_stream_put_WORD(at, list->value[n][0]);
        if (words == 2) {
            *at++ = ',';
            at = commit_stream_put_WORD(at, list->value[n][1]);
        }
        *at++ = ']';
        *at++ = ',';
    }
    at = commit_stream_put_close(at, ']');
    *at++ = ',';
    stream->end = at;
    list->count = 0;
}

static inline void commit_stream_put_registers(commit_stream *stream, const char *key, size_t length,
                                               commit_stream_list *lists)
{
    uint32_t any = 0;
    int of;
    for (of = 0; of < COMMIT_STREAM_CLASSES; ++of)
        any |= lists[of].count;
    if (!any)
        return;
    memcpy(commit_stream_room(stream), key, length);
    stream->end += length;
#define COMMIT_STREAM_ROW(word, constant, most, words)                                                             \
    if (lists[COMMIT_STREAM_##constant].count)                                                                     \
        commit_stream_put_list(stream, "\"" #word "\":[", sizeof(#word) + 3, &lists[COMMIT_STREAM_##constant],     \
                               words);
    COMMIT_STREAM_REGISTER_CLASSES(COMMIT_STREAM_ROW)
#undef COMMIT_STREAM_ROW
    stream->end = commit_stream_put_close(stream->end, '}');
    *stream->end++ = ',';
}

/* ---- Streams ----------------------------------------------------------------------------------------- */

/* Creates `file`, or writes to standard output for "-". With COMMIT_STREAM_WITH_ZSTD a name that ends in ".zst" is
 * compressed. Null when that fails; errno has the reason. */
static inline commit_stream *commit_stream_open(const char *file)
{
    const size_t length = strlen(file);
    const int zst = length > 4 && strcmp(file + length - 4, ".zst") == 0;
    commit_stream *stream = (commit_stream *)calloc(1, sizeof *stream);
    if (!stream)
        return NULL;
    stream->end = stream->buffer;
#ifdef COMMIT_STREAM_WITH_ZSTD
    stream->compressor = zst ? ZSTD_createCCtx() : NULL;
    errno = zst && !stream->compressor ? ENOMEM : 0;
#else
    errno = zst ? ENOTSUP : 0;
#endif
    if (!errno)
        stream->file = strcmp(file, "-") == 0 ? stdout : fopen(file, "wb");
    if (stream->file)
        return stream;
#ifdef COMMIT_STREAM_WITH_ZSTD
    ZSTD_freeCCtx(stream->compressor);
#endif
    free(stream);
    return NULL;
}

/* What went wrong first; null while all is well. Valid until the stream is closed and another call of strerror(). */
static inline const char *commit_stream_problem(const commit_stream *stream)
{
    return stream->problem;
}

/* Hands on what was written so far, for a reader that waits at the other end of a pipe. */
static inline void commit_stream_flush(commit_stream *stream)
{
    commit_stream_drain(stream, 1);
    if (!stream->problem && fflush(stream->file))
        commit_stream_fail(stream, strerror(errno));
}

/* Writes what is left and frees the stream. Returns null, or what went wrong first. */
static inline const char *commit_stream_close(commit_stream *stream)
{
    const char *problem;
    if (stream->open)
        commit_stream_fail(stream, "a commit is not ended");
    commit_stream_drain(stream, 2);
    if ((stream->file == stdout ? fflush(stdout) : fclose(stream->file)) != 0)
        commit_stream_fail(stream, strerror(errno));
#ifdef COMMIT_STREAM_WITH_ZSTD
    ZSTD_freeCCtx(stream->compressor);
#endif
    problem = stream->problem;
    free(stream);
    return problem;
}

/* The first line. */
static inline void commit_stream_write_machine(commit_stream *stream, const commit_stream_machine *from)
{
    size_t n;
    char *at = commit_stream_room(stream);
    if (stream->threads)
        commit_stream_fail(stream, "the machine is written already");
    if (stream->problem)
        return;
    stream->threads = (uint64_t)from->processors * from->threads;
    at = COMMIT_STREAM_PUT(at, "{\"t\":\"machine\",");
    COMMIT_STREAM_MACHINE_KEYS(COMMIT_STREAM_WRITE_KEY)
    at = COMMIT_STREAM_PUT(at, "\"options\":[");
    for (n = 0; n < from->option_count; ++n) {
        stream->end = at;
        at = commit_stream_room(stream);
        at = commit_stream_put_NUMBER(at, from->options[n]);
        *at++ = ',';
    }
    stream->end = commit_stream_put_close(at, ']');
    if (from->source) {
        stream->end = COMMIT_STREAM_PUT(stream->end, ",\"source\":");
        commit_stream_put_text(stream, from->source);
    }
    stream->end = COMMIT_STREAM_PUT(stream->end, "}\n");
}

/* State of hardware thread `tid` from here on. */
static inline void commit_stream_write_context(commit_stream *stream, int tid, const commit_stream_context *from)
{
    char *at = commit_stream_room(stream);
    if (!commit_stream_begin_line(stream, tid))
        return;
    at = COMMIT_STREAM_PUT(at, "{\"t\":\"context\",\"tid\":");
    at = commit_stream_put_signed(at, tid);
    *at++ = ',';
    COMMIT_STREAM_CONTEXT_KEYS(COMMIT_STREAM_WRITE_KEY)
    at = commit_stream_put_close(at, '}');
    *at++ = '\n';
    stream->end = at;
}

/* ---- A committed instruction ------------------------------------------------------------------------- */

static inline void commit_stream_begin_commit(commit_stream *stream, int tid, uint64_t seq, uint64_t pc,
                                              uint64_t npc, uint32_t op)
{
    char *at = commit_stream_room(stream);
    if (!commit_stream_begin_line(stream, tid))
        return;
    at = COMMIT_STREAM_PUT(at, "{\"t\":\"commit\",\"tid\":");
    at = commit_stream_put_signed(at, tid);
    COMMIT_STREAM_COMMIT_KEYS(COMMIT_STREAM_WRITE_ARGUMENT)
    *at++ = ',';
    stream->end = at;
    stream->open = 1;
    stream->seen = 0;
}

/* Mnemonic and operands. Control characters are escaped; more than 65,000 bytes are cut. */
static inline void commit_stream_text(commit_stream *stream, const char *text)
{
    if (!commit_stream_begin_part(stream, COMMIT_STREAM_PART_TEXT))
        return;
    stream->end = COMMIT_STREAM_PUT(commit_stream_room(stream), "\"text\":");
    commit_stream_put_text(stream, text);
    *stream->end++ = ',';
}

/* What the instruction is: COMMIT_STREAM_LOAD | ... */
static inline void commit_stream_is(commit_stream *stream, unsigned flags)
{
    char *at = commit_stream_room(stream);
    if (!commit_stream_begin_part(stream, COMMIT_STREAM_PART_IS) || !flags)
        return;
    at = COMMIT_STREAM_PUT(at, "\"is\":[");
#define COMMIT_STREAM_ROW(word, constant, bit)                                                                     \
    if (flags >> bit & 1)                                                                                          \
        at = COMMIT_STREAM_PUT(at, "\"" #word "\",");
    COMMIT_STREAM_FLAGS(COMMIT_STREAM_ROW)
#undef COMMIT_STREAM_ROW
    at = commit_stream_put_close(at, ']');
    *at++ = ',';
    stream->end = at;
}

/* Bytes that a string instruction moves. */
static inline void commit_stream_string_length(commit_stream *stream, uint16_t bytes)
{
    char *at = commit_stream_room(stream);
    if (!commit_stream_begin_part(stream, COMMIT_STREAM_PART_LENGTH))
        return;
    at = commit_stream_put_NUMBER(COMMIT_STREAM_PUT(at, "\"string_length\":"), bytes);
    *at++ = ',';
    stream->end = at;
}

/* The host's raw time from this commit on; without it each commit adds 1. */
static inline void commit_stream_time(commit_stream *stream, uint64_t time)
{
    char *at = commit_stream_room(stream);
    if (!commit_stream_begin_part(stream, COMMIT_STREAM_PART_TIME))
        return;
    at = commit_stream_put_WORD(COMMIT_STREAM_PUT(at, "\"time\":"), time);
    *at++ = ',';
    stream->end = at;
}

/* How the instruction's own address was translated. */
static inline void commit_stream_fetch(commit_stream *stream, const commit_stream_address *translation)
{
    char *at = commit_stream_room(stream);
    if (!commit_stream_begin_part(stream, COMMIT_STREAM_PART_FETCH))
        return;
    at = commit_stream_put_address(COMMIT_STREAM_PUT(at, "\"fetch\":{"), translation);
    *at++ = ',';
    stream->end = at;
}

/* The data access: its effective address (null: it has no valid one) and how that was translated. */
static inline void commit_stream_data(commit_stream *stream, const uint64_t *ea,
                                      const commit_stream_address *translation)
{
    char *at = commit_stream_room(stream);
    if (!commit_stream_begin_part(stream, COMMIT_STREAM_PART_DATA))
        return;
    at = COMMIT_STREAM_PUT(at, "\"data\":{");
    if (ea) {
        at = commit_stream_put_WORD(COMMIT_STREAM_PUT(at, "\"ea\":"), *ea);
        *at++ = ',';
    }
    at = commit_stream_put_address(at, translation);
    *at++ = ',';
    stream->end = at;
}

/* A register that the instruction read, or wrote; `word1` is that of a vector register. */
static inline void commit_stream_in(commit_stream *stream, commit_stream_class of, int32_t number, uint64_t word0,
                                    uint64_t word1)
{
    commit_stream_add_register(stream, stream->registers[0], of, number, word0, word1);
}

static inline void commit_stream_out(commit_stream *stream, commit_stream_class of, int32_t number, uint64_t word0,
                                     uint64_t word1)
{
    commit_stream_add_register(stream, stream->registers[1], of, number, word0, word1);
}

static inline void commit_stream_end(commit_stream *stream)
{
    if (!commit_stream_begin_part(stream, 0))
        return;
    commit_stream_put_registers(stream, "\"in\":{", 6, stream->registers[0]);
    commit_stream_put_registers(stream, "\"out\":{", 7, stream->registers[1]);
    stream->end = commit_stream_put_close(stream->end, '}');
    *stream->end++ = '\n';
    stream->open = 0;
}

/* ---- The other events -------------------------------------------------------------------------------- */

/* One event line of hardware thread `tid`: of the kind `literal`, with the arguments that are the keys of `list`. */
#define COMMIT_STREAM_EVENT(stream, literal, tid, list)                                                            \
    char *at = commit_stream_room(stream);                                                                         \
    if (!commit_stream_begin_line(stream, tid))                                                                    \
        return;                                                                                                    \
    at = COMMIT_STREAM_PUT(at, "{\"t\":\"" literal "\",\"tid\":");                                                 \
    at = commit_stream_put_signed(at, tid);                                                                        \
    list(COMMIT_STREAM_WRITE_ARGUMENT) at = COMMIT_STREAM_PUT(at, "}\n");                                          \
    stream->end = at;
#define COMMIT_STREAM_NO_KEYS(KEY)

static inline void commit_stream_write_pre(commit_stream *stream, int tid)
{
    COMMIT_STREAM_EVENT(stream, "pre", tid, COMMIT_STREAM_NO_KEYS)
}

/* An access to an entry of the hashed page table: real address and the entry's two doublewords. */
static inline void commit_stream_write_pte(commit_stream *stream, int tid, uint64_t pa, uint64_t upper,
                                           uint64_t lower)
{
    COMMIT_STREAM_EVENT(stream, "pte", tid, COMMIT_STREAM_PTE_KEYS)
}

/* A walk of a radix tree: real addresses of the entries it read, and of what it was for. */
static inline void commit_stream_write_rtpte(commit_stream *stream, int tid, uint64_t l1, uint64_t l2, uint64_t l3,
                                             uint64_t pte, uint64_t pa)
{
    COMMIT_STREAM_EVENT(stream, "rtpte", tid, COMMIT_STREAM_RTPTE_KEYS)
}

#endif
