// A file that is read at offsets, by any number of threads at once.
#pragma once

#include <cstddef>
#include <cstdint>

namespace trace
{

// A regular file with the size that it had when it was opened. Reading changes nothing in it, and interrupted calls
// are repeated.
class Input_File
{
public:
    Input_File() = default;
    Input_File(const Input_File &) = delete;
    Input_File &operator=(const Input_File &) = delete;
    ~Input_File();

    // 0, or an errno; anything but a regular file is refused.
    int open(const char *name);
    uint64_t size() const { return size_; }
    // Bytes read, fewer than `count` only where the file ends (it may have shrunk); with an I/O error `error` becomes
    // its errno.
    size_t read(uint64_t offset, void *to, size_t count, int &error) const;
    bool holds(uint64_t offset, uint64_t count) const { return offset <= size_ && count <= size_ - offset; }
    // Whether `name` is this very file.
    bool is(const char *name) const;

private:
    int descriptor_ = -1;
    uint64_t size_ = 0;
};

} // namespace trace
