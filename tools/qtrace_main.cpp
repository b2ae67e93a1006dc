#include "tool_run.h"

#include <unistd.h>

int main(int argc, char **argv)
{
    return qtrace_tool::run_qtrace({argv + 1, argv + argc}, STDOUT_FILENO, STDERR_FILENO);
}
