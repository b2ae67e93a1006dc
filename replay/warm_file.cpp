#include "warm_file.h"

#define COMMIT_STREAM_WITH_ZSTD
#include "commit_stream_writer.h"
#include "host.h"

#include <cerrno>
#include <cstring>

namespace replay
{

namespace
{

uint32_t page_mask(const PAGE_SIZES_USED &pages)
{
    uint32_t mask = 0;
#define ROW(word, bit) mask |= pages.PAGE_##word ? 1U << bit : 0;
    COMMIT_STREAM_PAGE_SIZES(ROW)
#undef ROW
    return mask;
}

// Values of each shape as the writer takes them.
#define TAKEN_NUMBER(value)   value
#define TAKEN_WORD(value)     value
#define TAKEN_TRUTH(value)    value
#define TAKEN_PAGES(value)    page_mask(value)
#define ROW(key, type, shape) to.key = TAKEN_##shape(from.key);

commit_stream_context written(const Thread_Context &from)
{
    commit_stream_context to{};
    COMMIT_STREAM_CONTEXT_KEYS(ROW)
    return to;
}

commit_stream_machine written(const Machine_Shape &from)
{
    commit_stream_machine to{};
    COMMIT_STREAM_MACHINE_KEYS(ROW)
    to.options = from.options.data();
    to.option_count = from.options.size();
    return to;
}

#undef ROW

} // namespace

std::string write_warm_file(const std::string &file)
{
    commit_stream *stream = commit_stream_open(file.c_str());
    if (!stream)
        return file + ": " + std::strerror(errno);
    const commit_stream_machine machine = written(host().shape());
    commit_stream_write_machine(stream, &machine);
    for (int tid = 0; tid < host().thread_count(); ++tid) {
        const commit_stream_context context = written(host().context(tid));
        commit_stream_write_context(stream, tid, &context);
    }
    const char *problem = commit_stream_close(stream);
    return problem ? file + ": " + problem : "";
}

} // namespace replay
