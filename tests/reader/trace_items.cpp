// Writes every item of a trace file to standard output, as the C++ reader delivers it: per item six u64 (kind,
// first and second number, address, whether that is known, block offset) and its structure with pointers and
// bookkeeping cleared; a header's comment follows it. For a discontinuity the numbers are offset, bytes, records, whether
// these are known, cause; four more follow: headers lost, record number, header number, whether there is a context, whose
// structure comes last. A file that is refused gives one item of kind 4.
#include "qtrace_reader.h"

#include <array>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace
{

void put(const void *bytes, size_t size)
{
    if (std::fwrite(bytes, 1, size, stdout) != size)
        std::exit(2);
}

void put_numbers(const std::array<uint64_t, 6> &numbers)
{
    put(numbers.data(), sizeof numbers);
}

void put_structure(const QTRACE_FILE_HDR &from)
{
    QTRACE_FILE_HDR header;
    std::memcpy(&header, &from, sizeof header);
    header.comment = nullptr;
    header.app_spec_data = nullptr;
    put(&header, sizeof header);
}

void put_header(const QTRACE_Item &item)
{
    const char *const comment = item.header.comment;
    const uint64_t has_comment = comment != nullptr;
    put_numbers({QTRACE_ITEM_HEADER, item.header_number, item.record_number, has_comment, 0, item.block_offset});
    put_structure(item.header);
    if (comment != nullptr)
        put(comment, item.header.comment_length);
}

void put_record(const QTRACE_Item &item)
{
    put_numbers({QTRACE_ITEM_RECORD, item.record_number, item.header_number, item.address,
                 static_cast<uint64_t>(item.address_known), item.block_offset});
    QTRACE_RECORD record;
    std::memcpy(&record, &item.record, sizeof record);
    record.data = nullptr;
    record.file_header = nullptr;
    record.persistent_data = nullptr;
    record.offset = record.record_count = record.instr_count = record.exec_instr_count = 0;
    put(&record, sizeof record);
}

void put_discontinuity(const QTRACE_Item &item)
{
    const QTRACE_Discontinuity &what = item.discontinuity;
    put_numbers({QTRACE_ITEM_DISCONTINUITY, what.offset, what.bytes, what.records,
                 static_cast<uint64_t>(what.records_known), static_cast<uint64_t>(what.cause)});
    const std::array<uint64_t, 4> more = {what.headers, item.record_number, item.header_number,
                                          what.context != nullptr};
    put(more.data(), sizeof more);
    if (what.context != nullptr)
        put_structure(*what.context);
}

bool put_item(QTRACE_Reader *reader)
{
    const QTRACE_Item *item = nullptr;
    switch (qtrace_next(reader, &item)) {
    case QTRACE_ITEM_HEADER:
        put_header(*item);
        return true;
    case QTRACE_ITEM_RECORD:
        put_record(*item);
        return true;
    case QTRACE_ITEM_DISCONTINUITY:
        put_discontinuity(*item);
        std::fprintf(stderr, "%s\n", qtrace_error(reader));
        return true;
    case QTRACE_ITEM_ERROR:
        std::exit(2);
    default:
        return false;
    }
}

} // namespace

int main(int argc, char **argv)
{
    for (int i = 1; i < argc; i++) {
        char *reason = nullptr;
        if (QTRACE_Reader *const reader = qtrace_open(argv[i], &reason)) {
            while (put_item(reader))
                ;
            qtrace_close(reader);
        } else {
            std::fprintf(stderr, "%s\n", reason != nullptr ? reason : "out of memory");
            put_numbers({QTRACE_ITEM_ERROR, 0, 0, 0, 0, 0});
        }
        std::free(reason);
        put_numbers({QTRACE_ITEM_END, 0, 0, 0, 0, 0});
    }
    return std::fflush(stdout) == 0 ? 0 : 2;
}
