#include "input_file.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace trace
{

Input_File::~Input_File()
{
    if (descriptor_ >= 0)
        ::close(descriptor_);
}

int Input_File::open(const char *name)
{
    // Without O_NONBLOCK a pipe would wait for a writer before it can be refused.
    do
        descriptor_ = ::open(name, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    while (descriptor_ < 0 && errno == EINTR);
    struct stat status;
    if (descriptor_ < 0 || ::fstat(descriptor_, &status) != 0)
        return errno;
    if (S_ISDIR(status.st_mode))
        return EISDIR;
    if (!S_ISREG(status.st_mode))
        return ESPIPE;
    size_ = static_cast<uint64_t>(status.st_size);
    return 0;
}

size_t Input_File::read(uint64_t offset, void *to, size_t count, int &error) const
{
    size_t done = 0;
    while (done < count) {
        const ssize_t got = ::pread(descriptor_, static_cast<uint8_t *>(to) + done, count - done,
                                    static_cast<off_t>(offset + done));
        if (got > 0) {
            done += static_cast<size_t>(got);
        } else if (got == 0) {
            break;
        } else if (errno != EINTR) {
            error = errno;
            break;
        }
    }
    return done;
}

bool Input_File::is(const char *name) const
{
    struct stat mine, other;
    return ::fstat(descriptor_, &mine) == 0 && ::stat(name, &other) == 0 && mine.st_dev == other.st_dev &&
           mine.st_ino == other.st_ino;
}

} // namespace trace
