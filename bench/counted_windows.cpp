// Preloaded into a tool that runs under callgrind with --instr-atstart=no: instructions are counted while the tool reads
// certain items of a trace, and dumped after each of these windows. What is between them runs about ten times as fast.
//
//   COUNTED_WINDOWS="SIZE END..."    windows of SIZE items, each before the item of number END; ascending, apart
#include "qtrace_reader.h"

#include <cstdint>
#include <cstdlib>
#include <dlfcn.h>
#include <sstream>
#include <vector>

#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#else // nothing to tell a profiler that is not installed
#define CALLGRIND_START_INSTRUMENTATION
#define CALLGRIND_STOP_INSTRUMENTATION
#define CALLGRIND_DUMP_STATS
#endif

namespace
{

// Where counting begins and ends, in turns; the last one is never reached.
std::vector<uint64_t> wanted_changes()
{
    const char *wanted = std::getenv("COUNTED_WINDOWS");
    std::istringstream numbers(wanted == nullptr ? "" : wanted);
    std::vector<uint64_t> changes;
    uint64_t size = 0;
    numbers >> size;
    for (uint64_t end; numbers >> end;) {
        changes.push_back(end - size);
        changes.push_back(end);
    }
    changes.push_back(UINT64_MAX);
    return changes;
}

void change(bool counting)
{
    if (counting) {
        CALLGRIND_START_INSTRUMENTATION;
    } else {
        CALLGRIND_STOP_INSTRUMENTATION;
        CALLGRIND_DUMP_STATS;
    }
}

} // namespace

extern "C" QTRACE_ITEM qtrace_next(QTRACE_Reader *reader, const QTRACE_Item **item)
{
    static const auto next = reinterpret_cast<decltype(&qtrace_next)>(dlsym(RTLD_NEXT, "qtrace_next"));
    static const std::vector<uint64_t> changes = wanted_changes();
    static uint64_t items = 0;
    static size_t changed = 0;
    if (items++ == changes[changed])
        change(changed++ % 2 == 0);
    return next(reader, item);
}
