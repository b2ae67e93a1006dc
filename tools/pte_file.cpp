#include "pte_file.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>

namespace qtrace_tool
{

// Others have no end, or none that can be reached twice.
static int why_unusable(const struct stat &status)
{
    return S_ISREG(status.st_mode) ? 0 : S_ISDIR(status.st_mode) ? EISDIR : ESPIPE;
}

Pte_File::Pte_File(const std::string &name, std::string &error) : file_(std::fopen(name.c_str(), "rbe"))
{
    struct stat status {
    };
    int reason = file_ == nullptr || fstat(fileno(file_.get()), &status) != 0 ? errno : why_unusable(status);
    if (reason != 0) {
        error = name + ": " + std::strerror(reason);
        file_.reset();
    }
    bytes_ = static_cast<uint64_t>(status.st_size);
}

void Pte_File::seek(uint64_t word)
{
    fseeko(file_.get(), static_cast<off_t>(word * sizeof(word)), SEEK_SET);
}

} // namespace qtrace_tool
