// Whether a file is there as far as its segments reach. The files are made by hand.

#include "shared_object.h"

#include <cstring>
#include <elf.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

using replay::shared_object_problem;

namespace
{

struct Shared_Objects : testing::Test {
    ~Shared_Objects() override { std::filesystem::remove(file); }

    std::string problem_of(const std::string &contents) const
    {
        std::ofstream(file, std::ios::binary) << contents;
        return shared_object_problem(file);
    }

    const std::string file =
        std::filesystem::temp_directory_path() / ("shared_object_test_" + std::to_string(getpid()));
};

template <class Structure> std::string bytes_of(const Structure &structure)
{
    std::string bytes(sizeof structure, '\0');
    std::memcpy(bytes.data(), &structure, sizeof structure);
    return bytes;
}

Elf64_Ehdr header_of(uint16_t segments)
{
    Elf64_Ehdr header{};
    std::memcpy(header.e_ident, "\177ELF", 4);
    header.e_phoff = 72;
    header.e_phentsize = 56;
    header.e_phnum = segments;
    return header;
}

Elf64_Phdr segment_of(uint32_t type, uint64_t offset, uint64_t size)
{
    Elf64_Phdr segment{};
    segment.p_type = type;
    segment.p_offset = offset;
    segment.p_filesz = size;
    return segment;
}

constexpr uint32_t LOADED = 1, NOTE = 4;

// 64 bytes of header, 8 that mean nothing, 3 segments of 56; only two of them count.
std::string three_segments(uint32_t kind_of_first, uint32_t kind_of_third)
{
    return bytes_of(header_of(2)) + std::string(8, 'x') + bytes_of(segment_of(kind_of_first, 0x100, 0x34)) +
           bytes_of(segment_of(LOADED, 0x80, 0x90)) + bytes_of(segment_of(kind_of_third, 0x1000, 0x1000));
}

} // namespace

TEST_F(Shared_Objects, reach_to_the_end_of_the_loaded_segment_that_ends_last)
{
    const std::string begin = three_segments(LOADED, LOADED);
    EXPECT_EQ(problem_of(begin), file + ": cut off: 240 of at least 308 bytes");
    EXPECT_EQ(problem_of(begin + std::string(307 - begin.size(), 'x')),
              file + ": cut off: 307 of at least 308 bytes");
    EXPECT_EQ(problem_of(begin + std::string(308 - begin.size(), 'x')), "");
}

TEST_F(Shared_Objects, need_no_bytes_of_segments_that_are_not_loaded)
{
    const std::string begin = three_segments(NOTE, NOTE);
    EXPECT_EQ(problem_of(begin), file + ": cut off: 240 of at least 272 bytes");
    EXPECT_EQ(problem_of(begin + std::string(272 - begin.size(), 'x')), "");
}

TEST_F(Shared_Objects, need_the_list_of_their_segments)
{
    const std::string begin = bytes_of(header_of(4)) + std::string(8, '\0') + bytes_of(segment_of(NOTE, 0, 0));
    EXPECT_EQ(problem_of(begin), file + ": cut off: 128 of at least 296 bytes");
    EXPECT_EQ(problem_of(begin + std::string(296 - begin.size(), '\0')), "");
}

TEST_F(Shared_Objects, are_told_by_their_header_and_other_files_left_to_the_loader)
{
    EXPECT_EQ(problem_of(""), "");
    EXPECT_EQ(problem_of("text"), "");
    Elf64_Ehdr header = header_of(4);
    EXPECT_EQ(problem_of(bytes_of(header).substr(0, 63)), "");
    EXPECT_EQ(problem_of(bytes_of(header)), file + ": cut off: 64 of at least 296 bytes");
    header.e_phentsize = 55;
    EXPECT_EQ(problem_of(bytes_of(header)), "");
    header = header_of(4);
    header.e_ident[0] = 'x';
    EXPECT_EQ(problem_of(bytes_of(header)), "");
}

#if !defined(__SANITIZE_ADDRESS__) // checks of objects need descriptors
TEST_F(Shared_Objects, that_cannot_be_opened_are_left_to_the_loader)
{
    std::ofstream(file).close();
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit none{0, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    const std::string problem = shared_object_problem(file);
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(problem, "");
}
#endif

TEST_F(Shared_Objects, are_regular_files)
{
    EXPECT_EQ(shared_object_problem("/"), "/: not a regular file");
    EXPECT_EQ(shared_object_problem(file), ""); // the loader says that it is missing
}
