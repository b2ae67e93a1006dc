// leave_out_records IN OUT FROM:COUNT...: copies a trace without those records (numbers in IN), headers included.
#include "qtrace.h"
#include "qtrace_reader.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace
{

struct Range {
    uint64_t from, count;
};

std::vector<Range> parse_ranges(char **begin, char **end)
{
    std::vector<Range> ranges;
    for (; begin != end; ++begin) {
        char *colon = nullptr;
        const uint64_t from = std::strtoull(*begin, &colon, 10);
        ranges.push_back({from, std::strtoull(colon + 1, nullptr, 10)});
    }
    return ranges;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 3)
        return 2;
    const std::vector<Range> ranges = parse_ranges(argv + 3, argv + argc);
    QTRACE_Reader *reader = qtrace_open(argv[1], nullptr);
    const QTRACE_FDESCR out = QTRACE_Fopen(argv[2], QTRACE_WRITE);
    if (reader == nullptr || out < 0)
        return 1;
    const QTRACE_Item *item = nullptr;
    uint64_t number = 0;
    int failed = 0;
    for (QTRACE_ITEM kind; (kind = qtrace_next(reader, &item)) != QTRACE_ITEM_END;) {
        if (kind == QTRACE_ITEM_HEADER) {
            QTRACE_FILE_HDR header = item->header;
            failed |= QTRACE_FwriteFileHeader(out, &header);
            continue;
        }
        if (kind != QTRACE_ITEM_RECORD)
            return 1;
        const bool left_out = std::any_of(ranges.begin(), ranges.end(), [&](const Range &range) {
            return number >= range.from && number - range.from < range.count;
        });
        number++;
        QTRACE_RECORD record = item->record;
        if (!left_out)
            failed |= QTRACE_FwriteRecord(out, &record);
    }
    const uint64_t failures = qtrace_writer_failures();
    QTRACE_Fclose(out);
    failed |= qtrace_writer_failures() != failures;
    qtrace_close(reader);
    std::printf("%llu records\n", static_cast<unsigned long long>(number));
    return failed != 0;
}
