#include "output_folder.h"

#include "output_file.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace qtrace_tool
{
namespace
{

namespace fs = std::filesystem;

[[noreturn]] void fail(const std::string &name, int error)
{
    throw std::system_error(error, std::generic_category(), name);
}

int create_file(const std::string &path, const std::string &shown)
{
    const int descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (descriptor < 0)
        fail(shown, errno);
    return descriptor;
}

bool is_own_name(const std::string &name)
{
    const std::string_view number = name.starts_with("stream") ? std::string_view(name).substr(6) : "";
    return name == "metadata" ||
           (!number.empty() && std::ranges::all_of(number, [](char c) { return c >= '0' && c <= '9'; }));
}

// Nothing that somebody else put there would be removed with it.
bool is_replaceable(const std::string &name)
{
    if (!fs::is_directory(fs::symlink_status(name)))
        return true;
    return std::ranges::all_of(fs::directory_iterator(name), [](const fs::directory_entry &entry) {
        return entry.is_regular_file() && is_own_name(entry.path().filename());
    });
}

std::string without_slashes(std::string name)
{
    while (name.size() > 1 && name.back() == '/')
        name.pop_back();
    return name;
}

} // namespace

Folder_File::Folder_File(const std::string &path, const std::string &shown)
    : shown_(shown), descriptor_(create_file(path, shown)), out_(descriptor_)
{
}

Folder_File::~Folder_File()
{
    if (descriptor_ >= 0)
        ::close(descriptor_);
}

void Folder_File::check()
{
    if (out_.error() != 0)
        fail(shown_, out_.error());
}

void Folder_File::close()
{
    out_.flush();
    check();
    if (::close(std::exchange(descriptor_, -1)) != 0)
        fail(shown_, errno);
}

Output_Folder::Output_Folder(const std::string &name, bool replace)
    : name_(without_slashes(name)), unfinished_(name_ + ".unfinished-" + std::to_string(getpid())),
      replace_(replace)
{
    refuse_existing(name_, replace);
    if (!is_replaceable(name_))
        throw std::runtime_error(name_ + " has other files than an export; --force does not replace it");
    arm_removal(unfinished_);
    if (mkdir(unfinished_.c_str(), 0777) != 0) {
        const int error = errno;
        disarm_removal();
        fail(name_, error);
    }
}

Output_Folder::~Output_Folder()
{
    std::error_code ignored;
    if (!unfinished_.empty())
        fs::remove_all(unfinished_, ignored);
    disarm_removal();
}

std::unique_ptr<Folder_File> Output_Folder::metadata() const
{
    return std::make_unique<Folder_File>(unfinished_ + "/metadata", name_);
}

std::unique_ptr<Folder_File> Output_Folder::stream(size_t number) const
{
    return std::make_unique<Folder_File>(unfinished_ + "/stream" + std::to_string(number), name_);
}

void Output_Folder::finish()
{
    const auto rename_with = [this](unsigned flags) {
        return renameat2(AT_FDCWD, unfinished_.c_str(), AT_FDCWD, name_.c_str(), flags) == 0;
    };
    // A name that came into being meanwhile is somebody else's.
    if (rename_with(RENAME_NOREPLACE))
        return unfinished_.clear();
    if (!replace_ || errno != EEXIST || !rename_with(RENAME_EXCHANGE))
        fail(name_, errno);
    // Now the old one has the other name, and the destructor removes it.
}

} // namespace qtrace_tool
