// The host of the benchmarks: the complete host interface on top of a decoded stream, every query a load or two.
// Programs with this host export its functions, and the plugin finds them when it is loaded.
#pragma once

#include "decoded_stream.h"

#include "qtrace.h"

namespace bench
{

// Becomes a machine of one thread per processor. The plugin must not be loaded, or about to be initialized again.
void set_machine(uint32_t processors, uint32_t version, uint64_t memory);

// The operations of a writer library.
struct Writer {
    decltype(&QTRACE_Fopen) open;
    decltype(&QTRACE_Fclose) close;
    decltype(&QTRACE_FwriteFileHeader) write_header;
    decltype(&QTRACE_FwriteRecord) write_record;
};

// Which writer the plugin's calls reach from now on; null: one whose operations return 0 at once.
void set_writer(const Writer *writer);

} // namespace bench
