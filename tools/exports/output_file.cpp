#include "output_file.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace qtrace_tool
{
namespace
{

// For the signal handler, which may not allocate. Empty: nothing to be removed.
char unfinished_name[PATH_MAX];

// Writes digits and the end of a text to `to`.
void put_number(char *to, unsigned number)
{
    char digits[12];
    size_t count = 0;
    for (; count == 0 || number > 0; number /= 10)
        digits[count++] = static_cast<char>('0' + number % 10);
    while (count > 0)
        *to++ = digits[--count];
    *to = 0;
}

// The files of a folder; only their numbers differ.
void remove_unfinished_folder()
{
    static char path[PATH_MAX + 32];
    char *const name = stpcpy(path, unfinished_name);
    stpcpy(name, "/metadata");
    unlink(path);
    char *const number = stpcpy(name, "/stream");
    for (unsigned i = 0; put_number(number, i), unlink(path) == 0; i++)
        ;
    rmdir(unfinished_name);
}

extern "C" void remove_unfinished(int signal)
{
    if (unfinished_name[0] != 0 && unlink(unfinished_name) != 0)
        remove_unfinished_folder();
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

[[noreturn]] void fail(const std::string &name, int error)
{
    throw std::system_error(error, std::generic_category(), name);
}

} // namespace

void arm_removal(const std::string &path)
{
    if (path.size() < sizeof unfinished_name)
        path.copy(unfinished_name, path.size());
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        std::signal(signal, remove_unfinished);
}

void disarm_removal()
{
    std::fill(std::begin(unfinished_name), std::end(unfinished_name), '\0');
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        std::signal(signal, SIG_DFL);
}

namespace
{

// Armed first, so that there is no moment in which an interrupt would leave the file.
int create(const std::string &path, const std::string &name)
{
    arm_removal(path);
    const int descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (descriptor < 0) {
        const int error = errno;
        disarm_removal();
        fail(name, error);
    }
    return descriptor;
}

} // namespace

const std::string &refuse_existing(const std::string &name, bool replace)
{
    if (!replace && access(name.c_str(), F_OK) == 0)
        throw std::runtime_error(name + " exists already; --force replaces it");
    return name;
}

Output_File::Output_File(const std::string &name, bool replace)
    : name_(refuse_existing(name, replace)), unfinished_(name + ".unfinished-" + std::to_string(getpid())),
      replace_(replace), descriptor_(create(unfinished_, name_)), out_(descriptor_)
{
}

Output_File::~Output_File()
{
    if (!unfinished_.empty())
        unlink(unfinished_.c_str());
    disarm_removal();
    if (descriptor_ >= 0)
        close(descriptor_);
}

void Output_File::check()
{
    if (out_.error() != 0)
        fail(name_, out_.error());
}

void Output_File::finish()
{
    out_.flush();
    check();
    const int descriptor = std::exchange(descriptor_, -1);
    if (close(descriptor) != 0)
        fail(name_, errno);
    // A name that came into being meanwhile is somebody else's file.
    if (renameat2(AT_FDCWD, unfinished_.c_str(), AT_FDCWD, name_.c_str(), replace_ ? 0 : RENAME_NOREPLACE) != 0)
        fail(name_, errno);
    unfinished_.clear();
}

} // namespace qtrace_tool
