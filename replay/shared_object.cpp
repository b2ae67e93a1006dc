#include "shared_object.h"

#include <algorithm>
#include <cstdint>
#include <elf.h>
#include <filesystem>
#include <fstream>
#include <link.h>
#include <string_view>

namespace replay
{

namespace
{

// Bytes that the file must have for its segments; 0 when its header is none of this platform's.
uint64_t needed_size(std::ifstream &in)
{
    ElfW(Ehdr) header{};
    in.read(reinterpret_cast<char *>(&header), sizeof header);
    if (!in || std::string_view(reinterpret_cast<char *>(header.e_ident), SELFMAG) != ELFMAG ||
        header.e_phentsize != sizeof(ElfW(Phdr)))
        return 0;
    uint64_t needed = header.e_phoff + uint64_t{header.e_phnum} * sizeof(ElfW(Phdr));
    in.seekg(static_cast<std::streamoff>(header.e_phoff));
    ElfW(Phdr) segment{};
    for (unsigned n = 0; n < header.e_phnum && in.read(reinterpret_cast<char *>(&segment), sizeof segment); ++n)
        if (segment.p_type == PT_LOAD)
            needed = std::max<uint64_t>(needed, segment.p_offset + segment.p_filesz);
    return needed;
}

} // namespace

std::string shared_object_problem(const std::string &file)
{
    std::error_code missing;
    const auto status = std::filesystem::status(file, missing);
    if (!std::filesystem::exists(status)) // or not known: loading says why
        return {};
    if (!std::filesystem::is_regular_file(status))
        return file + ": not a regular file";
    std::ifstream in(file, std::ios::binary);
    const uint64_t size = std::filesystem::file_size(file, missing);
    const uint64_t needed = in ? needed_size(in) : 0;
    if (needed <= size)
        return {};
    return file + ": cut off: " + std::to_string(size) + " of at least " + std::to_string(needed) + " bytes";
}

} // namespace replay
