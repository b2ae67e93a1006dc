// Preloaded library: makes the k-th allocation of a process fail, whoever makes it. Counted from the end of the
// libraries' own initialization. Configuration, from the environment:
//   FAIL_MEMORY_AT   number of the allocation that fails, from 1; 0: none, they are only counted
//   FAIL_MEMORY_LOG  file that receives "MODULE OFFSET" of whoever wanted the memory (the innermost caller outside the
//                    C and C++ libraries; the offset is one in the module's file), or without a failure "COUNT"
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <unwind.h>

// The C library's own, which it keeps exported for this.
extern void *__libc_malloc(size_t);
extern void *__libc_calloc(size_t, size_t);
extern void *__libc_realloc(void *, size_t);
extern void *__libc_memalign(size_t, size_t);

static long fail_at = -1; // before the constructor: nothing is counted
static long seen;
static const char *log_name = "";

static void write_log(const char *text)
{
    const int file = open(log_name, O_WRONLY | O_CREAT | O_TRUNC, 0666);
    if (file < 0 || write(file, text, strlen(text)) < 0)
        abort();
    close(file);
}

static int is_library(const char *file)
{
    static const char *const libraries[] = {"fail_memory", "libc.so", "libstdc++", "libgcc_s", "ld-linux", "libm.so"};
    for (size_t i = 0; i < sizeof libraries / sizeof *libraries; ++i)
        if (strstr(file, libraries[i]))
            return 1;
    return 0;
}

static _Unwind_Reason_Code look_at_frame(struct _Unwind_Context *context, void *found)
{
    Dl_info info;
    const char *address = (const char *)_Unwind_GetIP(context) - 1;
    if (!dladdr(address, &info) || is_library(info.dli_fname))
        return _URC_NO_REASON;
    const char *slash = strrchr(info.dli_fname, '/');
    snprintf(found, 512, "%s %#tx\n", slash ? slash + 1 : info.dli_fname, address - (const char *)info.dli_fbase);
    return _URC_END_OF_STACK;
}

static int fails(void)
{
    if (fail_at < 0 || ++seen != fail_at)
        return 0;
    fail_at = -1; // what happens from here on succeeds, our own calls too
    char text[512] = "? 0\n";
    _Unwind_Backtrace(look_at_frame, text);
    write_log(text);
    errno = ENOMEM;
    return 1;
}

void *malloc(size_t size)
{
    return fails() ? NULL : __libc_malloc(size);
}

void *calloc(size_t count, size_t size)
{
    return fails() ? NULL : __libc_calloc(count, size);
}

void *realloc(void *block, size_t size)
{
    return fails() ? NULL : __libc_realloc(block, size);
}

void *aligned_alloc(size_t alignment, size_t size)
{
    return fails() ? NULL : __libc_memalign(alignment, size);
}

void *memalign(size_t alignment, size_t size)
{
    return aligned_alloc(alignment, size);
}

int posix_memalign(void **block, size_t alignment, size_t size)
{
    void *memory = aligned_alloc(alignment, size);
    if (memory)
        *block = memory;
    return memory ? 0 : ENOMEM;
}

__attribute__((constructor)) static void begin(void)
{
    const char *at = getenv("FAIL_MEMORY_AT");
    const char *log = getenv("FAIL_MEMORY_LOG");
    if (!at || !log)
        return;
    log_name = log;
    fail_at = strtol(at, NULL, 10);
}

__attribute__((destructor)) static void end(void)
{
    if (fail_at < 0)
        return;
    char text[32];
    snprintf(text, sizeof text, "%ld\n", seen);
    fail_at = -1;
    write_log(text);
}
