// A page-table-entry file: 8-byte big-endian words without header or record marks.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

namespace qtrace_tool
{

// Real addresses have 60 bits; a word with more is no address.
constexpr bool is_real_address(uint64_t word)
{
    return word >> 60 == 0;
}

class Pte_File
{
public:
    // A regular file. On failure the file is not open and `error` says why.
    Pte_File(const std::string &name, std::string &error);

    bool is_open() const { return file_ != nullptr; }
    uint64_t bytes() const { return bytes_; }
    // Continues with that word, counted from 0.
    void seek(uint64_t word);
    // Sets `word` to the next one. False at the end of the whole words, or after a failure.
    bool next(uint64_t &word)
    {
        left_over_ = std::fread(&word, 1, sizeof(word), file_.get());
        word = __builtin_bswap64(word);
        return left_over_ == sizeof(word);
    }
    bool failed() const { return std::ferror(file_.get()) != 0; }
    // Bytes after the last whole word; known when next() has returned false.
    size_t left_over() const { return left_over_; }

private:
    struct Closer {
        void operator()(std::FILE *file) const { std::fclose(file); }
    };
    std::unique_ptr<std::FILE, Closer> file_;
    uint64_t bytes_ = 0;
    size_t left_over_ = 0;
};

} // namespace qtrace_tool
