// random_trace_file FILE RECORDS SEED: writes that many records by chance, plausible and wild ones, with headers
// and comments of all sizes among them.
#include "qtrace.h"
#include "random_traces.h"

#include <cstdio>
#include <cstdlib>

namespace
{

int write_header(QTRACE_FDESCR file, Random_Trace &trace)
{
    QTRACE_FILE_HDR header = trace.below(2) ? trace.plausible_header() : trace.wild_header();
    // One in eight is too long to stand beside its header.
    const uint64_t most = trace.below(8) ? 200 : 65535;
    std::string comment = trace.comment(trace.below(most));
    header.comment = trace.below(4) ? comment.data() : nullptr;
    header.comment_length = header.comment != nullptr ? static_cast<QTRACE_UINT16>(comment.size()) : 0;
    return QTRACE_FwriteFileHeader(file, &header);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 4) {
        std::fprintf(stderr, "usage: random_trace_file FILE RECORDS SEED\n");
        return 2;
    }
    const QTRACE_FDESCR file = QTRACE_Fopen(argv[1], QTRACE_WRITE);
    Random_Trace trace(std::strtoull(argv[3], nullptr, 10));
    int failures = file < 0;
    for (uint64_t records = std::strtoull(argv[2], nullptr, 10); records > 0 && failures == 0; records--) {
        if (trace.below(500) == 0)
            failures += write_header(file, trace) != 0;
        QTRACE_RECORD record = trace.below(10) ? trace.plausible_record() : trace.wild_record();
        failures += QTRACE_FwriteRecord(file, &record) != 0;
    }
    QTRACE_Fclose(file);
    return failures != 0;
}
