#include "replacement_file.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace trace
{

Replacement_File::Replacement_File(const char *name) : name_(name), target_(name)
{
    struct stat status;
    const bool exists = ::stat(name, &status) == 0;
    if (exists && !S_ISREG(status.st_mode)) {
        descriptor_ = ::open(name, O_WRONLY | O_CLOEXEC);
    } else {
        if (const std::unique_ptr<char, decltype(&std::free)> real(::realpath(name, nullptr), &std::free); real)
            target_ = real.get();
        open_beside(exists ? status.st_mode & 0777 : 0);
    }
    if (descriptor_ < 0)
        fail("open");
}

// With the permissions of the file that is replaced.
void Replacement_File::open_beside(mode_t mode)
{
    for (unsigned attempt = 0; attempt < 100; ++attempt) {
        temporary_ = target_ + ".new" + std::to_string(::getpid()) + "-" + std::to_string(attempt);
        descriptor_ = ::open(temporary_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (descriptor_ >= 0 || (errno != EEXIST && errno != EINTR))
            break;
    }
    if (descriptor_ < 0)
        temporary_.clear();
    else if (mode != 0)
        (void)::fchmod(descriptor_, mode);
}

Replacement_File::~Replacement_File()
{
    if (descriptor_ >= 0)
        ::close(descriptor_);
    if (!temporary_.empty())
        ::unlink(temporary_.c_str());
}

void Replacement_File::fail(const char *what) const
{
    throw std::system_error(errno, std::generic_category(), name_ + ": " + what);
}

void Replacement_File::write(const void *bytes, size_t size)
{
    const auto *from = static_cast<const uint8_t *>(bytes);
    while (size > 0) {
        const ssize_t written = ::write(descriptor_, from, size);
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            fail("write");
        from += written;
        size -= static_cast<size_t>(written);
    }
}

void Replacement_File::commit()
{
    if (::close(std::exchange(descriptor_, -1)) != 0 && errno != EINTR)
        fail("close");
    if (!temporary_.empty() && ::rename(temporary_.c_str(), target_.c_str()) != 0)
        fail("rename");
    temporary_.clear();
}

} // namespace trace
