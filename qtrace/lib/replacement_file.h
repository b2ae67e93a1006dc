// A file that takes its name only when it is complete.
#pragma once

#include <cstddef>
#include <string>
#include <sys/types.h>

namespace trace
{

// Written under another name beside `name`, which it replaces at commit(); without commit() nothing is left of it.
// Devices and pipes cannot be replaced: they are written to at once. Errors are exceptions of type std::system_error,
// whose text says the name and the operation.
class Replacement_File
{
public:
    explicit Replacement_File(const char *name);
    Replacement_File(const Replacement_File &) = delete;
    Replacement_File &operator=(const Replacement_File &) = delete;
    ~Replacement_File();

    void write(const void *bytes, size_t size);
    void commit();

private:
    [[noreturn]] void fail(const char *what) const;
    void open_beside(mode_t mode);

    std::string name_;      // as given
    std::string target_;    // what it stands for: links are followed
    std::string temporary_; // empty for a device, and when there is nothing to be removed
    int descriptor_ = -1;
};

} // namespace trace
