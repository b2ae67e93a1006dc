// What every program of this project does before it opens a file.
#pragma once

#include <fcntl.h>
#include <unistd.h>

// Occupies the standard descriptors that are closed, so that no file becomes one of them: a trace on descriptor 2 would
// receive the warnings. Using an occupied one still fails.
inline void occupy_standard_descriptors()
{
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor)
        if (fcntl(descriptor, F_GETFD) < 0)
            (void)!open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY);
}
