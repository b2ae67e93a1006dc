// Comments of file headers taken apart.
#include "header_comment.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace
{

using trace::Header_Comment;
using trace::parse_comment;

using Words = std::vector<std::string>;

bool is_comment(const std::string &text)
{
    Header_Comment comment;
    return parse_comment(text, comment);
}

} // namespace

TEST(header_comment, says_version_modes_memory_and_page_sizes)
{
    Header_Comment comment;
    EXPECT_EQ((std::pair{comment.version, comment.memory}), (std::pair{int64_t{0}, int64_t{0}}));
    EXPECT_FALSE(comment.bits64 || comment.little_endian);
    ASSERT_TRUE(parse_comment(
        "KelvoVer:3,64bitMode:True,LEMode:False,MemUsed:4096,HostPagesUsed:4K 64K ,GuestPagesUsed:", comment));
    EXPECT_EQ(comment.version, 3);
    EXPECT_TRUE(comment.bits64);
    EXPECT_FALSE(comment.little_endian);
    EXPECT_EQ(comment.memory, 4096);
    EXPECT_EQ(comment.host_pages, (Words{"4K", "64K"}));
    EXPECT_TRUE(comment.guest_pages.empty());
    ASSERT_TRUE(parse_comment("KelvoVer:-1,64bitMode:False,LEMode:True,MemUsed:0,HostPagesUsed:,GuestPagesUsed:4K "
                              "16K 64K 128K 256K 1M 2M "
                              "16M 256M 1G 16G undefined ",
                              comment));
    EXPECT_EQ(comment.version, -1);
    EXPECT_FALSE(comment.bits64);
    EXPECT_TRUE(comment.little_endian);
    EXPECT_EQ(comment.memory, 0);
    EXPECT_TRUE(comment.host_pages.empty());
    EXPECT_EQ(comment.guest_pages,
              (Words{"4K", "16K", "64K", "128K", "256K", "1M", "2M", "16M", "256M", "1G", "16G", "undefined"}));
}

TEST(header_comment, is_refused_when_anything_in_it_is_missing_other_or_too_much)
{
    const Words parts = {"KelvoVer:", "3",    ",64bitMode:",     "True", ",LEMode:",         "True",
                         ",MemUsed:", "4096", ",HostPagesUsed:", "4K ",  ",GuestPagesUsed:", "1G "};
    const auto joined = [&](size_t changed, const std::string &by) {
        std::string text;
        for (size_t i = 0; i < parts.size(); ++i)
            text += i == changed ? by : parts[i];
        return text;
    };
    EXPECT_TRUE(is_comment(joined(parts.size(), "")));
    for (size_t i = 0; i < parts.size(); ++i) {
        const bool pages = i == 9 || i == 11;
        EXPECT_EQ(is_comment(joined(i, "")), pages) << parts[i];
        EXPECT_FALSE(is_comment(joined(i, "?"))) << parts[i];
        EXPECT_FALSE(is_comment(joined(i, parts[i] + "?"))) << parts[i];
    }
    EXPECT_FALSE(is_comment(joined(parts.size(), "") + "4K "));
    EXPECT_FALSE(is_comment(joined(9, "64K 4K "))) << "not ascending";
    EXPECT_FALSE(is_comment(joined(9, "4K 4K ")));
    EXPECT_FALSE(is_comment(joined(9, "4K")));
    EXPECT_FALSE(is_comment(joined(11, "1G")));
    EXPECT_FALSE(is_comment(joined(11, "1G ,")));
    EXPECT_FALSE(is_comment(joined(3, "true")));
}

// The page after the text cannot be read.
TEST(header_comment, is_read_to_its_end_and_no_further)
{
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void *const pages = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(pages, MAP_FAILED);
    char *const end = static_cast<char *>(pages) + page;
    ASSERT_EQ(mprotect(end, page, PROT_NONE), 0);
    const std::string whole =
        "KelvoVer:3,64bitMode:True,LEMode:False,MemUsed:4096,HostPagesUsed:4K ,GuestPagesUsed:undefined ";
    for (size_t size = 0; size <= whole.size(); ++size) {
        std::memcpy(end - size, whole.data(), size);
        Header_Comment comment;
        const bool complete = size == whole.size() || whole.substr(0, size).ends_with("GuestPagesUsed:");
        EXPECT_EQ(parse_comment({end - size, size}, comment), complete) << whole.substr(0, size);
    }
    munmap(pages, 2 * page);
}
