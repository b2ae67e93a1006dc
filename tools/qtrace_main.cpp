#include "standard_descriptors.h"
#include "tool_run.h"

#include <csignal>
#include <unistd.h>

int main(int argc, char **argv)
{
    occupy_standard_descriptors();
    std::signal(SIGXFSZ, SIG_IGN); // a file at its size limit is a failed write
    return qtrace_tool::run_qtrace({argv + 1, argv + argc}, STDOUT_FILENO, STDERR_FILENO);
}
