// Writes every item of a trace file to standard output, as the C++ reader delivers it: per item six u64 (kind,
// first and second number, address, whether that is known, block offset) and its structure with pointers and
// bookkeeping cleared; a header's comment follows it. For damage the numbers are offset, bytes, records, whether
// these are known, whether the file is truncated. A file that is refused gives one item of kind 4.
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

void put_header(const QTRACE_Item &item)
{
    const char *const comment = item.header.comment;
    const uint64_t has_comment = comment != nullptr;
    put_numbers({QTRACE_ITEM_HEADER, item.header_number, item.record_number, has_comment, 0, item.block_offset});
    QTRACE_FILE_HDR header;
    std::memcpy(&header, &item.header, sizeof header);
    header.comment = nullptr;
    header.app_spec_data = nullptr;
    put(&header, sizeof header);
    if (comment != nullptr)
        put(comment, header.comment_length);
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

// Pauses, and what the writer or a recovery left out, are no damage: the Python reader does not deliver them.
void put_discontinuity(const QTRACE_Discontinuity &what)
{
    const bool cut = what.cause == QTRACE_CAUSE_CUT_END;
    if (what.cause != QTRACE_CAUSE_DAMAGE && !cut)
        return;
    put_numbers({QTRACE_ITEM_DISCONTINUITY, what.offset, what.bytes, what.records,
                 static_cast<uint64_t>(what.records_known), static_cast<uint64_t>(cut)});
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
        put_discontinuity(item->discontinuity);
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
