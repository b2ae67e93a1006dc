// Recovery of a damaged file while opening, reading and writing are intercepted: at link time, so only one source of a program
// may include this.
#pragma once

#include "block_format.h"
#include "replacement_file.h"
#include "trace_file_fixture.h"

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <functional>
#include <sys/stat.h>

// Called before every read, write and opening; what it returns becomes the errno, 0 lets it through.
inline std::function<int()> before_read, before_write, before_open;
// No more bytes than these are read or written by a call.
inline size_t most_at_once = SIZE_MAX;

extern "C" ssize_t __real_pread(int file, void *to, size_t size, off_t offset);
extern "C" ssize_t __wrap_pread(int file, void *to, size_t size, off_t offset)
{
    const int error = before_read ? before_read() : 0;
    if (error == 0)
        return __real_pread(file, to, std::min(size, most_at_once), offset);
    errno = error;
    return -1;
}

extern "C" ssize_t __real_write(int file, const void *from, size_t size);
extern "C" ssize_t __wrap_write(int file, const void *from, size_t size)
{
    const int error = before_write ? before_write() : 0;
    if (error == 0)
        return __real_write(file, from, std::min(size, most_at_once));
    errno = error;
    return -1;
}

extern "C" int __real_open(const char *name, int flags, mode_t mode);
extern "C" int __wrap_open(const char *name, int flags, mode_t mode)
{
    const int error = before_open ? before_open() : 0;
    if (error == 0)
        return __real_open(name, flags, mode);
    errno = error;
    return -1;
}

class recovery : public trace_file
{
protected:
    recovery() : saved_(folder_ / "saved") {}
    ~recovery() override
    {
        before_read = before_write = before_open = nullptr;
        most_at_once = SIZE_MAX;
    }

    // Three damaged places in a file of some blocks.
    void write_damaged()
    {
        setenv("QTRACE_COMPRESSION", "none", 1);
        write_plausible(36'000);
        const std::vector<uint64_t> at = block_offsets();
        ASSERT_GT(at.size(), 5u);
        damaged_ = bytes();
        damaged_[at[1]] ^= 1;
        damaged_[at[3] + 100] ^= 1;
        put_bytes(damaged_);
    }
    int recover() { return recover(name_, saved_); }
    int recover(const std::string &from, const std::string &to)
    {
        char *text = nullptr;
        const int failed = qtrace_recover(from.c_str(), to.c_str(), &result_, &text);
        error_ = text != nullptr ? text : "";
        free(text);
        return failed;
    }
    static std::string contents(const std::filesystem::path &file)
    {
        std::ifstream in(file, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    size_t files() const
    {
        return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(folder_), {}));
    }

    const std::filesystem::path saved_;
    std::string damaged_;
    QTRACE_Recovery result_{};
    std::string error_;
};
