#include "standard_descriptors.h"
#include "tool_run.h"

#include <csignal>
#include <malloc.h>
#include <unistd.h>

// Buffers of groups of blocks come and go: memory that went back to the system each time would come with page faults.
static void keep_freed_memory()
{
    (void)mallopt(M_MMAP_THRESHOLD, 32 << 20);
    (void)mallopt(M_TRIM_THRESHOLD, 256 << 20);
}

int main(int argc, char **argv)
{
    keep_freed_memory();
    occupy_standard_descriptors();
    std::signal(SIGXFSZ, SIG_IGN); // a file at its size limit is a failed write
    return qtrace_tool::run_qtrace({argv + 1, argv + argc}, STDOUT_FILENO, STDERR_FILENO);
}
