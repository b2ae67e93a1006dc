// What the Python package is measured against.
//   reading_floor loop FILE              thread CPU time of an empty loop of qtrace_next: records, nanoseconds
//   reading_floor repeat FROM TO RECORDS  writes the items of a trace again and again, up to so many records
#include "qtrace.h"
#include "qtrace_reader.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

namespace
{

using Reader = std::unique_ptr<QTRACE_Reader, decltype(&qtrace_close)>;

Reader open(const char *name)
{
    Reader reader(qtrace_open(name, nullptr), &qtrace_close);
    if (!reader) {
        std::fprintf(stderr, "%s: cannot be read\n", name);
        std::exit(1);
    }
    return reader;
}

int64_t thread_time()
{
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return time.tv_sec * 1'000'000'000 + time.tv_nsec;
}

int loop(const char *name)
{
    const int64_t begin = thread_time();
    const Reader reader = open(name);
    const QTRACE_Item *item = nullptr;
    uint64_t records = 0;
    while (const QTRACE_ITEM kind = qtrace_next(reader.get(), &item))
        records += kind == QTRACE_ITEM_RECORD;
    std::printf("%lu %ld\n", records, thread_time() - begin);
    return 0;
}

// Returns the records written, fewer than `most` when the trace ends; -1 when one could not be written.
int64_t copy(const char *from, QTRACE_FDESCR to, int64_t most)
{
    const Reader reader = open(from);
    const QTRACE_Item *item = nullptr;
    int64_t records = 0;
    while (records < most) {
        const QTRACE_ITEM kind = qtrace_next(reader.get(), &item);
        if (kind == QTRACE_ITEM_END)
            break;
        QTRACE_FILE_HDR header = item->header;
        QTRACE_RECORD record = item->record;
        if ((kind == QTRACE_ITEM_HEADER && QTRACE_FwriteFileHeader(to, &header) != 0) ||
            (kind == QTRACE_ITEM_RECORD && QTRACE_FwriteRecord(to, &record) != 0))
            return -1;
        records += kind == QTRACE_ITEM_RECORD;
    }
    return records;
}

int repeat(const char *from, const char *to, int64_t records)
{
    const QTRACE_FDESCR file = QTRACE_Fopen(to, QTRACE_WRITE);
    int64_t copied = 1;
    for (; file >= 0 && records > 0 && copied > 0; records -= copied)
        copied = copy(from, file, records);
    QTRACE_Fclose(file);
    return records > 0;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 3 && std::strcmp(argv[1], "loop") == 0)
        return loop(argv[2]);
    if (argc == 5 && std::strcmp(argv[1], "repeat") == 0)
        return repeat(argv[2], argv[3], std::strtoll(argv[4], nullptr, 10));
    std::fprintf(stderr, "usage: reading_floor loop FILE | repeat FROM TO RECORDS\n");
    return 2;
}
